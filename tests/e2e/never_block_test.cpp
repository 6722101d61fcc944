/*
 * Measures how long each call takes under each fault of a name server, in the laboratory. All faults run at the same
 * time, each in its own VRF and process. The table goes to standard output.
 */
#include <algorithm>
#include <chrono>
#include <map>

#include "tests/support/laboratory.h"

static constexpr int BLOCKING_SECONDS = 3;
static constexpr long ALLOWED_MS = BLOCKING_SECONDS * 1000 + 250;
static constexpr int SLOW_MS = 2000;
static constexpr int LONGEST_JOB_MS = 6000; /* for jobs that end by themselves */

static const struct fault {
    const char *name;
    bool is_slow;  /* the first lookup takes SLOW_MS or longer */
    bool resolves; /* once the jobs have ended */
    std::string command;
} faults[] = {
    {"no fault", false, true, "true"},
    {"silent", true, false, "kill -STOP $server"},
    {"silent for 2.9 s", true, true, "kill -STOP $server; (sleep 2.9; kill -CONT $server) &"},
    {"silent for 3.1 s", true, true, "kill -STOP $server; (sleep 3.1; kill -CONT $server) &"},
    {"port unreachable", false, false, "kill $server"},
};

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
    EXPECT_EQ(longest_ms["getaddrinfo_async_mq3"] >= SLOW_MS, fault.is_slow) << "fault had no effect";
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
        ASSERT_TRUE(shell("mkdir -p " + files +
                          " && echo 'nameserver 127.0.0.1\noptions timeout:4 attempts:1' > " + files +
                          "/resolv.conf && ip netns add " + name + " && ip -n " + name +
                          " link set lo up && ip netns exec " + name +
                          " dnsmasq --conf-file=/dev/null --no-resolv --no-hosts --listen-address=127.0.0.1 "
                          "--bind-interfaces --user=root --address=/lab/192.0.2.1 --pid-file=/run/" +
                          name + ".server"));
        daemons.push_back(fork());
        if (daemons.back() == 0) {
            freopen(("/run/" + name + ".table").c_str(), "w", stdout); /* with the trace */
            EXPECT_TRUE(shell("server=$(cat /run/" + name + ".server); " + fault.command));
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
    EXPECT_TRUE(shell("grep -hE -A5 '^[|]|: Failure$' /run/vrf1??.table; cd /run/netns; for v in vrf1??; do "
                      "kill -KILL $(cat /run/$v.server); ip netns del $v; done 2> /dev/null"));
}
