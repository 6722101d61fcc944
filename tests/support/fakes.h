/*
 * fakes.h: the memory platform, and fakes of C library functions, which the linker option --wrap puts in place of the
 * real ones. A test sets their results. fake.log records the trace messages and most calls of both, in order.
 */
#ifndef TESTS_SUPPORT_FAKES_H
#define TESTS_SUPPORT_FAKES_H

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "platform/memory/memory_platform.h"

struct log_line {
    std::string sinks; /* of a trace message: H, B, F, P; of other lines: empty */
    std::string place; /* of the message in the code, if the log file is among the sinks */
    std::string text;
};

struct fake_world {
    std::vector<log_line> log;

    /* set by the test: what the fakes do and return */
    long marker = 1, fopen_fails, syserr, async_syserr, ret_syserr, resolver_result;
    long now = 1000, folder_mode = 0755; /* of the folder of the debug log */
    long failing_malloc;                 /* N: the N-th malloc() from now fails; 0: none */
    std::vector<unsigned char> ret_info;
    bool loses_buffer; /* the job service returns a size, but no buffer */
    struct addrinfo *resolver_answer;
    std::vector<int> waitpid_results; /* one for each call, then always 0; negative: -errno */

    std::map<void *, size_t> blocks; /* allocated and not yet freed, with their sizes */
    int waits, sleeps;
};
static fake_world fake;

/* Sinks that get the same message one after the other share a line. */
static void note(const std::string &text, const std::string &sink = "", const std::string &place = "")
{
    std::vector<log_line> &log = fake.log;
    if (sink.empty() || log.empty() || log.back().sinks.empty() || log.back().text != text ||
        log.back().sinks.find(sink) != std::string::npos)
        log.push_back({"", "", text});
    log.back().sinks += sink;
    log.back().place += place;
    errno = ENOTTY; /* as the real call may */
}

/* Writing to the stream adds a line to fake.log. */
static ssize_t note_write(void *sink, const char *text, size_t size)
{
    const std::string line(text, size), name = static_cast<const char *>(sink);
    const size_t start = name == "F" ? line.find(' ', line.find(" : ") + 3) + 1 : 0;
    note(line.substr(start), name, line.substr(0, start));
    return static_cast<ssize_t>(size);
}

static FILE *noting_stream(const char *sink, int buffering)
{
    FILE *stream = fopencookie(const_cast<char *>(sink), "a",
                               {.read = nullptr, .write = note_write, .seek = nullptr, .close = nullptr});
    setvbuf(stream, nullptr, buffering, 4096);
    return stream;
}

/* Hooks of the memory platform */

static void note_call(const char *text)
{
    note(text);
}

static int note_history(uint32_t event_class, uint32_t length, const void *record)
{
    const auto *bytes = static_cast<const char *>(record);
    EXPECT_EQ(event_class, 0x730000u);
    EXPECT_EQ(std::string(bytes, 4), std::string("\x65\0\0\0", 4));
    EXPECT_EQ(length, 4 + strlen(bytes + 4) + 1);
    EXPECT_LE(length, 516u);
    note(bytes + 4, "H");
    return -1; /* the library ignores the result */
}

static int note_debug(const char *text, size_t length)
{
    note({text, length}, "B");
    return -1;
}

static std::string name_of(const FILE *stream)
{
    return stream == nullptr  ? "none"
           : stream == stdin  ? "in"
           : stream == stdout ? "out"
           : stream == stderr ? "err"
                              : "log";
}

/* Logs or checks every argument of a job start, and logs how the process handles SIGCHLD then. */
static void note_start(const memory_job &job)
{
    static uint32_t last_tag;
    struct sigaction sigchld;
    sigaction(SIGCHLD, nullptr, &sigchld);
    const auto *request = static_cast<server_addr_info *>(job.arg);
    job_options options = *job.options;
    EXPECT_EQ(job.body, reinterpret_cast<spawnlet_body_t>(resolve_server_hostname));
    std::ostringstream text;
    text << (job.in_background ? "fork async " : "fork ") << request->serv_name << ":" << request->service
         << ":" << request->vrf << " family " << request->hints.ai_family << ", " << options.timeout_secs
         << " s, flag " << options.option_flag << ", "
         << (options.job_tag == last_tag ? "same tag" : "new tag") << ", streams " << name_of(job.in) << " "
         << name_of(job.out) << " " << name_of(job.err) << ", SIGCHLD "
         << (sigchld.sa_handler == SIG_DFL ? "default" : "other");
    note(text.str());
    last_tag = options.job_tag;
    EXPECT_EQ(options.record_size, 44u);
    options.job_tag = options.record_size = options.option_flag = 0;
    options.timeout_secs = 0;
    const job_options zero = {};
    EXPECT_EQ(memcmp(&options, &zero, sizeof zero), 0);
}

/* A blocking job ends as the test has set. A background job never ends by itself: the test completes it. */
static uint32_t start_job(memory_job *job)
{
    static memory_completion outcome;
    note_start(*job);
    if (job->in_background)
        return static_cast<uint32_t>(fake.async_syserr);
    if (fake.ret_info.empty() && fake.ret_syserr == 0 && fake.syserr != 0)
        return static_cast<uint32_t>(fake.syserr); /* the out-parameters are not written */
    outcome = {.syserr = static_cast<uint32_t>(fake.syserr),
               .ret_info = fake.ret_info.empty() || fake.loses_buffer ? nullptr : fake.ret_info.data(),
               .ret_info_size = static_cast<uint32_t>(fake.ret_info.size()),
               .ret_syserr = static_cast<int32_t>(fake.ret_syserr)};
    job->outcome = &outcome;
    return 0;
}

static FILE *real_stdout;

/*
 * Resets the fakes and the state of the library before each test, and fails a test that leaks memory. The debug log is
 * open at first.
 */
class world_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        fake = {};
        memory_reset();
        memory.next_handle = 0x100;
        memory.history_class = 0x730000;
        memory.jobs_never_end = 1;
        memory.on_start = start_job;
        memory.on_call = note_call;
        memory.on_history = note_history;
        memory.on_debug = note_debug;
        static const auto at_start =
            std::tuple(running_jobs, cache_initialised, blocking_timeout, cache_timeout, async_queue);
        std::tie(running_jobs, cache_initialised, blocking_timeout, cache_timeout, async_queue) = at_start;
        local_cache = job_list = nullptr;
        log_file = noting_stream("F", _IOFBF);
        memset(file_name, 0, sizeof file_name);
        signal(SIGCHLD, SIG_DFL);
        real_stdout = stdout;
        stdout = noting_stream("P", _IONBF);
    }

    void TearDown() override
    {
        fclose(stdout);
        stdout = real_stdout;
        if (log_file != nullptr)
            fclose(log_file);
        EXPECT_EQ(destroy_dns_cache(local_cache), 0);
        EXPECT_EQ(destroy_dns_cache(job_list), 0);
        EXPECT_EQ(fake.blocks.size(), 0u) << "leaked";
    }
};

/* Fakes of the C library */

extern "C" {
void *__real_malloc(size_t size);
void __real_free(void *block);
int __real_stat(const char *path, struct stat *status);
FILE *__real_fopen(const char *path, const char *mode);
int __real_open(const char *path, int flags, ...);

static constexpr char guard[] = "guard";

/* Fills the block, so that code which relies on zeroed memory fails, and the bytes behind it, which free() checks. */
void *__wrap_malloc(size_t size)
{
    if (fake.failing_malloc > 0 && --fake.failing_malloc == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = __real_malloc(size + sizeof guard);
    memset(block, 0xa5, size);
    memcpy(static_cast<char *>(block) + size, guard, sizeof guard);
    fake.blocks[block] = size;
    return block;
}

void __wrap_free(void *block)
{
    const auto found = fake.blocks.find(block);
    if (found != fake.blocks.end()) {
        EXPECT_EQ(memcmp(static_cast<char *>(block) + found->second, guard, sizeof guard), 0) << "overflow";
        memset(block, 0x5a, found->second); /* so that code which reads it later fails */
        fake.blocks.erase(found);
    }
    __real_free(block);
}

void *__wrap_g_try_malloc(size_t size)
{
    return malloc(size);
}

void __wrap_g_free(void *block)
{
    free(block);
}

/* Links of lists are such blocks, too, but never fail. */
GList *__wrap_g_list_prepend(GList *list, void *data)
{
    const long failing_malloc = std::exchange(fake.failing_malloc, 0);
    auto *link = static_cast<GList *>(__wrap_malloc(sizeof(GList)));
    fake.failing_malloc = failing_malloc;
    *link = {.data = data, .next = list, .prev = nullptr};
    if (list != nullptr)
        list->prev = link;
    return link;
}

void __wrap_g_list_free_1(GList *link)
{
    __wrap_free(link);
}

void __wrap_g_list_free(GList *list)
{
    while (list != nullptr)
        __wrap_free(std::exchange(list, list->next));
}

/* Like the C library's: frees each node and its canonical name, nothing else. */
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
    note(std::string("getaddrinfo ") + node + " " + service + (hints != nullptr ? " with hints" : ""));
    if (fake.resolver_result == 0)
        *answer = fake.resolver_answer;
    return static_cast<int>(fake.resolver_result);
}

time_t __wrap_time(time_t *)
{
    return fake.now;
}

int __wrap_stat(const char *path, struct stat *status)
{
    if (strcmp(path, "/bootflash/.enable_dns_debugs") != 0)
        return __real_stat(path, status);
    return fake.marker ? 0 : -1;
}

int __wrap_fstatat(int, const char *path, struct stat *folder, int)
{
    EXPECT_STREQ(path, "/tmp");
    *folder = {.st_mode = static_cast<mode_t>(fake.folder_mode)};
    return 0;
}

/* The library can always create its debug log. */
int __wrap_open(const char *path, int flags, mode_t mode)
{
    const bool is_log = strncmp(path, "/tmp/dnscache.log.", 18) == 0;
    return is_log ? __real_open("/dev/null", O_WRONLY) : __real_open(path, flags, mode);
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (strncmp(path, "/tmp/dnscache.log.", 18) != 0)
        return __real_fopen(path, mode);
    note(std::string("fopen ") + path + " " + mode);
    return fake.fopen_fails ? nullptr : noting_stream("F", _IOFBF);
}

pid_t __wrap_waitpid(pid_t pid, int *status, int)
{
    EXPECT_EQ(status, nullptr);
    fake.waits++;
    if (fake.waitpid_results.empty())
        return 0;
    const int result = fake.waitpid_results.front();
    fake.waitpid_results.erase(fake.waitpid_results.begin());
    errno = result < 0 ? -result : errno; /* success leaves the last error */
    return result < 0 ? -1 : result == 0 ? 0 : pid;
}

int __wrap_select(int count, fd_set *, fd_set *, fd_set *, struct timeval *interval)
{
    EXPECT_EQ(count, 0);
    EXPECT_EQ(interval->tv_sec, 0);
    EXPECT_EQ(interval->tv_usec, 25000);
    *interval = {};
    fake.sleeps++;
    return 0;
}
}

#endif
