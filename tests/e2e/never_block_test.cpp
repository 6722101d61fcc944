/*
 * Measures how long each call takes under each fault of a name server, in the laboratory. All faults run at the same
 * time, each in its own VRF and process. The table goes to standard output.
 */
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>

#include "tests/support/laboratory.h"

static constexpr int BLOCKING_SECONDS = 3;
static constexpr long ALLOWED_MS = BLOCKING_SECONDS * 1000 + 250;
static constexpr int SHORTEST_WAIT_MS = 2900;
static constexpr int LONGEST_JOB_MS = 6000; /* for jobs that end by themselves */

enum reply_kind { ANSWER, GARBAGE, TRUNCATED, SERVER_FAILURE, OTHER_ID };
enum tcp_kind { TCP_RESET, TCP_SILENT };

static const struct fault {
    const char *name;
    int delay_ms; /* before the reply; -1: no reply */
    reply_kind reply;
    tcp_kind tcp;
    bool has_server;
    bool is_slow;  /* the first lookup takes SHORTEST_WAIT_MS or longer */
    bool resolves; /* once the jobs have ended */
} faults[] = {
    {"no fault", 0, ANSWER, TCP_RESET, true, false, true},
    {"silent", -1, ANSWER, TCP_RESET, true, true, false},
    {"late by 2.9 s", SHORTEST_WAIT_MS, ANSWER, TCP_RESET, true, true, true},
    {"late by 3.1 s", 3100, ANSWER, TCP_RESET, true, true, true},
    {"garbage", 0, GARBAGE, TCP_RESET, true, true, false},
    {"truncated, then RST", 0, TRUNCATED, TCP_RESET, true, false, false},
    {"truncated, then silent", 0, TRUNCATED, TCP_SILENT, true, true, false},
    {"SERVFAIL", 0, SERVER_FAILURE, TCP_RESET, true, false, false},
    {"wrong id", 0, OTHER_ID, TCP_RESET, true, true, false},
    {"port unreachable", 0, ANSWER, TCP_RESET, false, false, false},
};
static constexpr int FAULTS = std::size(faults);

enum call { LOOKUP, LOOKUP_AGAIN, ADD_ENTRY, QUEUE_NEXT, JOB_DONE, CHECK, REFRESH, PURGE, REMOVE, CALLS };
static const char *const call_names[CALLS] = {"getaddrinfo_async_mq3",
                                              "the same, job running",
                                              "add_entry_to_dns_cache",
                                              "linux_queue_next",
                                              "dnscache_spawnletcb_job_done",
                                              "check_local_cache",
                                              "refresh_dns_cache",
                                              "remove_old_entries_from_local_cache",
                                              "remove_entry_from_dns_cache"};

struct row {
    long longest_ms[CALLS];
    char last_lookup[100];
    bool is_complete;
};

/* The name server */

static std::string reply_to(const std::string &query, reply_kind kind)
{
    std::string reply = query;
    reply[2] = '\x81';
    reply[3] = '\x80';
    if (kind == OTHER_ID)
        reply[0] = static_cast<char>(~reply[0]);
    if (kind == SERVER_FAILURE)
        reply[3] = '\x82';
    if (kind == TRUNCATED)
        reply[2] = '\x83';
    if (kind == GARBAGE)
        std::fill(reply.begin() + 2, reply.end(), '\xff');
    const bool asks_for_ipv4 = query[query.size() - 3] == 1;
    if ((kind == ANSWER || kind == OTHER_ID) && asks_for_ipv4) {
        reply[7] = 1;
        reply += std::string("\xc0\x0c\0\1\0\1\0\0\0\0\0\4\xc0\0\2\1", 16);
    }
    return reply;
}

/* Answers each query in its own process, so that delays do not add up. */
[[noreturn]] static void serve(int server, const fault &fault)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        char query[512];
        struct sockaddr_in client = {};
        socklen_t size = sizeof client;
        auto *address = reinterpret_cast<struct sockaddr *>(&client);
        const ssize_t length = recvfrom(server, query, sizeof query, 0, address, &size);
        if (length < 17 || fault.delay_ms < 0 || fork() != 0)
            continue;
        poll(nullptr, 0, fault.delay_ms);
        const std::string reply = reply_to({query, static_cast<size_t>(length)}, fault.reply);
        sendto(server, reply.data(), reply.size(), 0, address, size);
        _exit(0);
    }
}

static int open_port(int type)
{
    struct sockaddr_in port = {};
    port.sin_family = AF_INET;
    port.sin_port = htons(53);
    port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, type, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&port), sizeof port), 0);
    EXPECT_TRUE(type == SOCK_DGRAM || listen(fd, 5) == 0);
    return fd;
}

static void start_server(int vrf, const fault &fault)
{
    const int host_net = open("/proc/self/ns/net", O_RDONLY);
    const int vrf_net = open(("/run/netns/vrf" + std::to_string(vrf)).c_str(), O_RDONLY);
    ASSERT_EQ(setns(vrf_net, CLONE_NEWNET), 0);
    const int server = fault.has_server ? open_port(SOCK_DGRAM) : -1;
    if (fault.tcp == TCP_SILENT)
        open_port(SOCK_STREAM);
    ASSERT_EQ(setns(host_net, CLONE_NEWNET), 0);
    if (server >= 0 && fork() == 0)
        serve(server, fault);
}

/* The daemon */

template <typename Call>
static auto timed(row *row, call which, Call call)
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = call();
    const auto took = std::chrono::steady_clock::now() - start;
    long &longest = row->longest_ms[which];
    longest = std::max(
        longest, static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
    return result;
}

static void complete_jobs(row *row, uint32_t queue)
{
    while (running_jobs > 0 && becomes_readable(queue, LONGEST_JOB_MS)) {
        linux_completion done;
        if (timed(row, QUEUE_NEXT, [&] { return linux_queue_next(queue, &done); }) == 1)
            timed(row, JOB_DONE, [&] {
                dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
                                             done.ret_syserr);
                return 0;
            });
    }
}

static void call_all(row *row, int vrf)
{
    const struct addrinfo hints = {};
    const uint32_t queue = linux_queue_create();
    dns_cache_init(queue, BLOCKING_SECONDS);
    timed(row, LOOKUP, [&] { return look_up("time.lab", vrf); });
    timed(row, LOOKUP_AGAIN, [&] { return look_up("time.lab", vrf); });
    timed(row, ADD_ENTRY, [&] { return add_entry_to_dns_cache("other.lab", 123, vrf, &hints); });
    complete_jobs(row, queue);
    const std::string last = timed(row, LOOKUP, [&] { return look_up("time.lab", vrf); });
    snprintf(row->last_lookup, sizeof row->last_lookup, "%s", last.c_str());
    look_up("kept.lab", 0);
    dns_cache_set_timeout(-1); /* every record has expired */
    const int before = running_jobs;
    timed(row, CHECK, [] {
        struct addrinfo *found = nullptr;
        const int result = check_local_cache(local_cache, "kept.lab:123:0", &found);
        freeaddrinfo(found);
        return result;
    });
    timed(row, REFRESH, [] { return refresh_dns_cache(), 0; });
    row->is_complete = running_jobs > before;
    look_up("kept.lab", 0);
    timed(row, PURGE, [] { return remove_old_entries_from_local_cache(), 0; });
    timed(row, REMOVE, [] { return remove_entry_from_dns_cache("kept.lab"), 0; });
}

static void print_table(const row *rows)
{
    printf("| fault |");
    for (const char *name : call_names)
        printf(" %s |", name);
    printf("\n|---|");
    for (int i = 0; i < CALLS; i++)
        printf("--:|");
    puts("");
    for (int i = 0; i < FAULTS; i++) {
        printf("| %s |", faults[i].name);
        for (const long ms : rows[i].longest_ms)
            printf(" %ld |", ms);
        puts("");
    }
    fflush(stdout);
}

TEST(NeverBlock, EveryCallIsBoundedUnderEveryFault)
{
    auto *rows = shared<std::array<row, FAULTS>>()->data();
    for (int i = 0; i < FAULTS; i++) {
        const std::string name = "vrf" + std::to_string(100 + i), files = "/etc/netns/" + name;
        ASSERT_TRUE(shell("ip netns add " + name + " && ip -n " + name + " link set lo up && mkdir " + files +
                          " && echo 'nameserver 127.0.0.1\noptions timeout:4 attempts:1' > " + files +
                          "/resolv.conf"));
        if (fork() == 0) {
            start_server(100 + i, faults[i]);
            freopen("/dev/null", "w", stdout);
            call_all(&rows[i], 100 + i);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    }
    for (int i = 0; i < FAULTS; i++) {
        int status = -1;
        ASSERT_GT(wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    print_table(rows);
    for (int i = 0; i < FAULTS; i++) {
        SCOPED_TRACE(faults[i].name);
        EXPECT_EQ(std::string(rows[i].last_lookup) == "192.0.2.1", faults[i].resolves) << rows[i].last_lookup;
        EXPECT_TRUE(rows[i].is_complete);
        EXPECT_EQ(rows[i].longest_ms[LOOKUP] >= SHORTEST_WAIT_MS, faults[i].is_slow) << "fault had no effect";
        for (const long ms : rows[i].longest_ms)
            EXPECT_LE(ms, ALLOWED_MS);
    }
}
