/*
 * Measures how long each call takes under each fault of a name server, in the laboratory. All faults run at the same
 * time, each in its own VRF and process. The table goes to standard output.
 */
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "tests/support/laboratory.h"

static constexpr int BLOCKING_SECONDS = 3;
static constexpr long ALLOWED_MS = BLOCKING_SECONDS * 1000 + 250;
static constexpr int SHORTEST_WAIT_MS = 2900;
static constexpr int LONGEST_JOB_MS = 6000; /* for jobs that end by themselves */

static constexpr int NO_REPLY = -1;

static const struct fault {
    const char *name;
    int delay_ms;  /* before the reply */
    bool is_slow;  /* the first lookup takes SHORTEST_WAIT_MS or longer */
    bool resolves; /* once the jobs have ended */
    enum { ANSWER, SERVFAIL, TRUNCATED } reply = ANSWER;
} faults[] = {
    {"no fault", 0, false, true},
    {"silent", NO_REPLY, true, false},
    {"late by 2.9 s", SHORTEST_WAIT_MS, true, true},
    {"late by 3.1 s", 3100, true, true},
    {"SERVFAIL", 0, false, false, fault::SERVFAIL},
    {"truncated, then silent over TCP", 0, true, false, fault::TRUNCATED},
};

/* The name server: the address of any name is 192.0.2.1, and it has no IPv6 address. */

static std::string reply_to(const std::string &query, const fault &fault)
{
    std::string reply = query;
    if (query[query.size() - 3] == 1) { /* asks for IPv4 */
        reply[7] = 1;
        reply += std::string("\xc0\x0c\0\1\0\1\0\0\0\0\0\4\xc0\0\2\1", 16);
    }
    reply[3] = fault.reply == fault::SERVFAIL ? '\x82' : '\x80';
    reply[2] = fault.reply == fault::TRUNCATED ? '\x83' : '\x81';
    return reply;
}

/* Answers each query in its own process, so that delays do not add up. */
[[noreturn]] static void serve(int server, const fault &fault)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        char query[512];
        struct sockaddr client = {};
        socklen_t size = sizeof client;
        const ssize_t length = recvfrom(server, query, sizeof query, 0, &client, &size);
        if (length < 17 || fault.delay_ms < 0 || fork() != 0)
            continue;
        poll(nullptr, 0, fault.delay_ms);
        const std::string reply = reply_to({query, static_cast<size_t>(length)}, fault);
        sendto(server, reply.data(), reply.size(), 0, &client, size);
        _exit(0);
    }
}

static int open_port(int type)
{
    const struct sockaddr_in port = {.sin_family = AF_INET, .sin_port = htons(53)};
    const int fd = socket(AF_INET, type, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const struct sockaddr *>(&port), sizeof port), 0);
    return fd;
}

static void start_server(const std::string &vrf, const fault &fault)
{
    const int host_net = open("/proc/self/ns/net", O_RDONLY);
    ASSERT_EQ(setns(open(("/run/netns/" + vrf).c_str(), O_RDONLY), CLONE_NEWNET), 0);
    const int server = open_port(SOCK_DGRAM);
    listen(open_port(SOCK_STREAM), 5); /* accepts no connection */
    ASSERT_EQ(setns(host_net, CLONE_NEWNET), 0);
    if (fork() == 0)
        serve(server, fault);
}

/* The daemon */

/* Inside each call; completions are taken only if jobs end. */
static std::map<std::string, long> longest_ms = {{"linux_queue_dispatch", 0}};

static void timed(const std::string &name, const std::function<void()> &call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    longest_ms[name] = std::max(longest_ms[name], static_cast<long>(took.count()));
    EXPECT_LE(longest_ms[name], ALLOWED_MS) << name;
}

static void complete_jobs(uint32_t queue)
{
    while (running_jobs > 0 && becomes_readable(queue, LONGEST_JOB_MS))
        timed("linux_queue_dispatch",
              [queue] { linux_queue_dispatch(queue, dnscache_spawnletcb_job_done, nullptr, nullptr); });
}

static void call_all(const fault &fault, int vrf)
{
    const struct addrinfo hints = {};
    const uint32_t queue = linux_queue_create();
    std::string last;
    dns_cache_init(queue, BLOCKING_SECONDS);
    timed("getaddrinfo_async_mq3", [&] { look_up("time.lab", vrf); });
    timed("getaddrinfo_async_mq3, job running", [&] { look_up("time.lab", vrf); });
    timed("add_entry_to_dns_cache", [&] { add_entry_to_dns_cache("other.lab", 123, vrf, &hints); });
    complete_jobs(queue);
    timed("getaddrinfo_async_mq3", [&] { last = look_up("time.lab", vrf); });
    EXPECT_EQ(last == "192.0.2.1", fault.resolves) << last;
    EXPECT_EQ(longest_ms["getaddrinfo_async_mq3"] >= SHORTEST_WAIT_MS, fault.is_slow)
        << "fault had no effect";
    look_up("kept.lab", 0);
    dns_cache_set_timeout(-1); /* every record has expired */
    const int before = running_jobs;
    struct addrinfo *found = nullptr;
    timed("check_local_cache", [&] { check_local_cache(local_cache, "kept.lab:123:0", &found); });
    freeaddrinfo(found);
    timed("refresh_dns_cache", [] { refresh_dns_cache(); });
    EXPECT_GT(running_jobs, before);
    look_up("kept.lab", 0);
    timed("remove_old_entries_from_local_cache", [] { remove_old_entries_from_local_cache(); });
    timed("remove_entry_from_dns_cache", [] { remove_entry_from_dns_cache("kept.lab"); });
}

/* Prints the table's row of a fault; the first one also prints the head. */
static void print_row(const fault &fault)
{
    std::string names = "| fault |", line = "\n|---|", row = std::string("| ") + fault.name + " |";
    for (const auto &[call, ms] : longest_ms) {
        names += " " + call + " |";
        line += "--:|";
        row += " " + std::to_string(ms) + " |";
    }
    puts(((&fault == faults ? names + line + "\n" : "") + row).c_str());
}

TEST(NeverBlock, EveryCallIsBoundedUnderEveryFault)
{
    int vrf = 100;
    std::vector<pid_t> daemons;
    for (const fault &fault : faults) {
        const std::string name = "vrf" + std::to_string(vrf), files = "/etc/netns/" + name;
        ASSERT_TRUE(shell("ip netns del " + name + " 2> /dev/null; mkdir -p " + files +
                          " && echo 'nameserver 127.0.0.1\noptions timeout:4 attempts:1' > " + files +
                          "/resolv.conf && ip netns add " + name + " && ip -n " + name + " link set lo up"));
        daemons.push_back(fork());
        if (daemons.back() == 0) {
            freopen(("/run/never_block." + name).c_str(), "w", stdout); /* with the trace */
            start_server(name, fault);
            call_all(fault, vrf);
            print_row(fault);
            fflush(stdout);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        vrf++;
    }
    for (const pid_t daemon : daemons) {
        int status = -1;
        waitpid(daemon, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(shell("grep -hE -A5 '^[|]|: Failure$' /run/never_block.*"));
}
