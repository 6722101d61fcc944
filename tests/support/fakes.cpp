#include "tests/support/fakes.h"

#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>

#include <regex>

#include "platform/evtrack.h"
#include "platform/nsbind.h"
#include "platform/platmgr.h"
#include "platform/rtctx.h"

fake_world fake;

static void note(const std::string &line)
{
    fake.log.push_back(line);
}

static std::string format_text(const char *format, va_list args)
{
    char text[4096];
    const int length = vsnprintf(text, sizeof text, format, args);
    return {text, static_cast<size_t>(length)};
}

/* A stream whose writes are lines of the log. */
static ssize_t note_write(void *sink, const char *text, size_t size)
{
    note(static_cast<const char *>(sink) + std::string(text, size));
    return static_cast<ssize_t>(size);
}

static FILE *noting_stream(const char *sink, int buffering)
{
    FILE *stream = fopencookie(const_cast<char *>(sink), "a",
                               {.read = nullptr, .write = note_write, .seek = nullptr, .close = nullptr});
    setvbuf(stream, nullptr, buffering, 4096);
    return stream;
}

/* Fixture */

static FILE *real_stdout;

void world_test::SetUp()
{
    fake = {};
    local_cache = job_list = nullptr;
    running_jobs = cache_initialised = 0;
    blocking_timeout = 3;
    cache_timeout = 60;
    async_queue = 0;
    log_file = nullptr;
    memset(file_name, 0, sizeof file_name);
    signal(SIGCHLD, SIG_DFL);
    real_stdout = stdout;
    stdout = noting_stream("P:", _IONBF);
}

void world_test::TearDown()
{
    fclose(stdout);
    stdout = real_stdout;
    if (log_file != nullptr)
        fclose(log_file);
    destroy_dns_cache(local_cache);
    destroy_dns_cache(job_list);
    EXPECT_EQ(fake.blocks.size(), 0u) << "leaked";
}

lines logged(const char *prefix)
{
    static const std::regex place("^([a-z_0-9]+)\\([0-9]+\\)"), address("0x[0-9a-f]{8,}|[0-9a-f]{8,}");
    lines found;
    for (const std::string &line : fake.log) {
        if (!line.starts_with(prefix))
            continue;
        const std::string text = std::regex_replace(line.substr(strlen(prefix)), place, "$1(#)");
        found.push_back(std::regex_replace(text, address, "#"));
    }
    return found;
}

lines traces()
{
    return logged("P:");
}

lines calls()
{
    lines found;
    for (const std::string &line : fake.log)
        if (line.size() < 2 || line[1] != ':')
            found.push_back(line);
    return found;
}

/* Builders */

server_spawnlet_data_t a_record(const record_facts &facts)
{
    server_spawnlet_data_t record = {};
    snprintf(record.serv_id, sizeof record.serv_id, "%s:%d:%d", facts.host, facts.port, facts.vrf);
    snprintf(record.serv_name, sizeof record.serv_name, "%s", facts.host);
    snprintf(record.service, sizeof record.service, "%d", facts.port);
    record.vrf = facts.vrf;
    record.status = facts.status;
    record.timestamp = facts.stamp;
    for (const char *address : facts.addresses) {
        const int i = record.num_entries++;
        const bool ipv6 = strchr(address, ':') != nullptr;
        struct sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        struct sockaddr_in6 sin6 = {};
        sin6.sin6_family = AF_INET6;
        inet_pton(ipv6 ? AF_INET6 : AF_INET, address, ipv6 ? (void *)&sin6.sin6_addr : &sin.sin_addr);
        record.ai_hdr[i].ai_family = ipv6 ? AF_INET6 : AF_INET;
        record.ai_hdr[i].ai_socktype = SOCK_STREAM;
        record.ai_hdr[i].ai_addrlen = ipv6 ? sizeof sin6 : sizeof sin;
        memcpy(record.addr[i], ipv6 ? (void *)&sin6 : &sin, 16);
        if (ipv6)
            memcpy(record.addr6[i], &sin6, sizeof sin6);
        snprintf(record.canonname[i], sizeof record.canonname[i], "%s", facts.canonical);
    }
    return record;
}

std::vector<unsigned char> bytes_of(const server_spawnlet_data_t &record)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
    return {bytes, bytes + sizeof record};
}

template <typename T>
static T *on_heap(const T &value)
{
    auto *block = static_cast<T *>(malloc(sizeof(T)));
    *block = value;
    return block;
}

server_spawnlet_data_t *cached(const record_facts &facts)
{
    server_spawnlet_data_t *record = on_heap(a_record(facts));
    local_cache = g_list_prepend(local_cache, record);
    return record;
}

void running(const char *host, const char *service, int vrf, uint32_t handle)
{
    server_addr_info job;
    server_addr_init(host, service, nullptr, vrf, &job);
    job.job_handle = handle;
    job_list = g_list_prepend(job_list, on_heap(job));
    running_jobs++;
}

lines hosts_in_cache()
{
    lines hosts;
    for (GList *link = local_cache; link != nullptr; link = link->next)
        hosts.push_back(link->data ? static_cast<server_spawnlet_data_t *>(link->data)->serv_name : "NULL");
    return hosts;
}

lines addresses_of(const struct addrinfo *chain)
{
    lines addresses;
    for (; chain != nullptr; chain = chain->ai_next) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(chain->ai_family, get_sock_in_addr(chain->ai_addr), text, sizeof text);
        addresses.push_back(text);
    }
    return addresses;
}

/* Platform services */

evtrack_modname evtrack_dbg_modname = {"fake"};

int evtrack_hist_event_subtype_check(uint32_t event_class, uint32_t subtype)
{
    return fake.history_on && event_class == 0x730000 && subtype == 101 ? 0 : 1;
}

int evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record)
{
    const auto *bytes = static_cast<const char *>(record);
    uint32_t subtype;
    memcpy(&subtype, bytes, sizeof subtype);
    EXPECT_EQ(event_class, 0x730000u);
    EXPECT_EQ(subtype, 101u);
    EXPECT_EQ(length, 4 + strlen(bytes + 4) + 1);
    fake.history_length = length;
    note(std::string("H:") + (bytes + 4));
    return -1;
}

int evtrack_chk_int(int flag, int a, int b, int c)
{
    return fake.debug_on && flag == 101 && a == 0 && b == 0 && c == 1;
}

int dbgemit(int one, const void *modname, int zero, const char *format, ...)
{
    EXPECT_TRUE(one == 1 && modname == &evtrack_dbg_modname && zero == 0);
    va_list args;
    va_start(args, format);
    note("B:" + format_text(format, args));
    va_end(args);
    return -1;
}

uint32_t platmgr_partition_get(void)
{
    return fake.partition;
}

int rtctx_api_init(void)
{
    note("rtctx_init");
    return fake.rtctx_result;
}

void rtctx_api_close(void)
{
    note("rtctx_close");
}

int nsbind_set_global_context(int32_t vrf)
{
    note("bind " + std::to_string(vrf));
    return -1;
}

uint32_t spawnlet_register_async_q(uint32_t queue)
{
    fake.queues.push_back(queue);
    return fake.register_result;
}

static void note_fork(const char *kind, spawnlet_body_t body, void *arg, const job_options *options, FILE *in,
                      FILE *out, FILE *err)
{
    struct sigaction sigchld;
    sigaction(SIGCHLD, nullptr, &sigchld);
    fake.forks.push_back({*options, *static_cast<server_addr_info *>(arg), in, out, err,
                          sigchld.sa_handler == SIG_DFL,
                          body == reinterpret_cast<spawnlet_body_t>(resolve_server_hostname)});
    note(kind);
}

uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out, FILE *err)
{
    note_fork("fork", body, arg, options, in, out, err);
    EXPECT_TRUE(*ret_info == nullptr && *ret_info_size == 0 && *ret_syserr == 0);
    *ret_info = fake.ret_info.empty() || fake.loses_buffer ? nullptr : fake.ret_info.data();
    *ret_info_size = static_cast<uint32_t>(fake.ret_info.size());
    *ret_syserr = fake.ret_syserr;
    return fake.blocking_syserr;
}

uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                FILE *in, FILE *out, FILE *err, uint32_t *handle)
{
    EXPECT_EQ(one, 1);
    note_fork("fork_async", body, arg, options, in, out, err);
    if (fake.async_syserr == 0)
        *handle = fake.next_handle++;
    return fake.async_syserr;
}

int spawnlet_done(const void *buffer, uint32_t size)
{
    const auto *bytes = static_cast<const unsigned char *>(buffer);
    fake.handed_back.assign(bytes, bytes + size);
    note("done " + std::to_string(size));
    return 0;
}

const char *errcode2str(uint32_t code)
{
    return code == 0 ? "fine" : "broken";
}

/* C library */

extern "C" {
void *__real_malloc(size_t size);
void __real_free(void *block);
int __real_stat(const char *path, struct stat *status);
FILE *__real_fopen(const char *path, const char *mode);

void *__wrap_malloc(size_t size)
{
    if (fake.failing_malloc > 0 && --fake.failing_malloc == 0)
        return nullptr;
    void *block = __real_malloc(size);
    memset(block, 0xa5, size); /* nothing may count on fresh memory */
    fake.blocks.insert(block);
    return block;
}

void __wrap_free(void *block)
{
    fake.blocks.erase(block);
    __real_free(block);
}

/* As the C library's own: each node and its canonical name, nothing else. */
void __wrap_freeaddrinfo(struct addrinfo *chain)
{
    ASSERT_NE(chain, nullptr);
    while (chain != nullptr) {
        struct addrinfo *next = chain->ai_next;
        free(chain->ai_canonname);
        free(chain);
        chain = next;
    }
}

int __wrap_getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                       struct addrinfo **answer)
{
    note(std::string("resolve ") + node + " " + service + (hints != nullptr ? " with hints" : ""));
    if (fake.resolver_result == 0)
        *answer = fake.resolver_answer;
    return fake.resolver_result;
}

time_t __wrap_time(time_t *)
{
    return fake.now;
}

int __wrap_stat(const char *path, struct stat *status)
{
    if (strcmp(path, "/bootflash/.enable_dns_debugs") != 0)
        return __real_stat(path, status);
    return fake.marker_exists ? 0 : -1;
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (strncmp(path, "/tmp/dnscache.log.", 18) != 0)
        return __real_fopen(path, mode);
    note(std::string("fopen ") + path + " " + mode);
    return fake.log_file_opens ? noting_stream("F:", _IOFBF) : nullptr;
}

pid_t __wrap_waitpid(pid_t pid, int *status, int)
{
    EXPECT_EQ(status, nullptr);
    fake.waits++;
    if (fake.waitpid_results.empty())
        return 0;
    const int result = fake.waitpid_results.front();
    fake.waitpid_results.erase(fake.waitpid_results.begin());
    errno = result < 0 ? -result : 0;
    return result < 0 ? -1 : result == 0 ? 0 : pid;
}

int __wrap_select(int, fd_set *, fd_set *, fd_set *, struct timeval *interval)
{
    EXPECT_EQ(interval->tv_sec, 0);
    EXPECT_EQ(interval->tv_usec, 25000);
    *interval = {};
    fake.sleeps++;
    return 0;
}
}

/* Standard output is a sink under test, so failures must show elsewhere. */
class failures_to_stderr : public testing::EmptyTestEventListener
{
    void OnTestPartResult(const testing::TestPartResult &part) override
    {
        if (part.failed())
            fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
    }
};

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new failures_to_stderr);
    return RUN_ALL_TESTS();
}
