/*
 * miss.cpp: measures a miss, by the memory that the parent has touched; the same lookup written by hand; and the
 * commands that an operator would use.
 */
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/bench.h"

static void miss(benchmark::State &state)
{
    const int vrf = static_cast<int>(state.range(1));
    empty_cache();
    for (auto _ : state) {
        state.SetIterationTime(seconds_of([&] {
            if (look_up(VRF_NAME, vrf) == 0)
                give_up("a miss returned no addresses");
        }));
        remove_entry_from_dns_cache(VRF_NAME);
        wait_for_children();
    }
}

/* By hand: a pipe, a fork, and a read of one record, which does not wait for the exit of the child */

/* Enters the network namespace, and mounts its resolv.conf: otherwise the child would ask another name server. */
static void enter_vrf_by_hand()
{
    const int space = open("/run/netns/vrf1", O_RDONLY | O_CLOEXEC);
    if (setns(space, CLONE_NEWNET) != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount("", "/", nullptr, MS_SLAVE | MS_REC, nullptr) != 0 ||
        mount("/etc/netns/vrf1/resolv.conf", "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
        _exit(EXIT_FAILURE);
}

static void child_by_hand(int channel, int vrf)
{
    struct addrinfo *answers;
    server_spawnlet_data_t record = {};
    if (vrf != 0)
        enter_vrf_by_hand();
    if (getaddrinfo(VRF_NAME, SERVICE, nullptr, &answers) != 0)
        _exit(EXIT_FAILURE);
    for (const struct addrinfo *ai = answers; ai != nullptr && record.num_entries < 4; ai = ai->ai_next) {
        uint8_t *slot =
            ai->ai_family == AF_INET6 ? record.addr6[record.num_entries] : record.addr[record.num_entries];
        memcpy(slot, ai->ai_addr, ai->ai_addrlen);
        record.num_entries++;
    }
    if (write(channel, &record, sizeof record) != sizeof record)
        _exit(EXIT_FAILURE);
    _exit(EXIT_SUCCESS);
}

static bool look_up_by_hand(int vrf)
{
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0)
        return false;
    const pid_t pid = fork();
    if (pid == 0)
        child_by_hand(channel[1], vrf);
    close(channel[1]);
    server_spawnlet_data_t record;
    const bool is_whole = pid > 0 && read(channel[0], &record, sizeof record) == sizeof record;
    close(channel[0]);
    return is_whole && record.num_entries > 0;
}

static void miss_by_hand(benchmark::State &state)
{
    const int vrf = static_cast<int>(state.range(1));
    for (auto _ : state) {
        state.SetIterationTime(seconds_of([&] {
            if (!look_up_by_hand(vrf))
                give_up("the lookup by hand failed");
        }));
        wait_for_children();
    }
}

static void sizes_and_vrfs(benchmark::internal::Benchmark *lookup)
{
    lookup->ArgNames({"mb", "vrf"})->Setup(grow)->Teardown(shrink)->UseManualTime()->MinTime(0.06);
    for (const int mb : {SMALL_MB, 100, 500})
        for (const int vrf : {0, 1})
            lookup->Args({mb, vrf});
    for (const int mb : {50, 200, 300, 400})
        lookup->Args({mb, 0});
}

BENCHMARK(miss)->Apply(sizes_and_vrfs);
BENCHMARK(miss_by_hand)->Apply(sizes_and_vrfs);

/* The operator's commands: one process that enters the VRF, and one that resolves. */

static void ip_netns_exec(benchmark::State &state)
{
    const char *const arguments[] = {"ip", "netns", "exec", "vrf1", "getent", "ahosts", VRF_NAME, nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    signal(SIGCHLD, SIG_DFL); /* a miss leaves SIGCHLD ignored, and waitpid() would fail */
    for (auto _ : state) {
        pid_t pid;
        int status;
        if (posix_spawnp(&pid, arguments[0], &quiet, nullptr, const_cast<char *const *>(arguments),
                         environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0)
            give_up("ip netns exec failed");
    }
    posix_spawn_file_actions_destroy(&quiet);
}

BENCHMARK(ip_netns_exec)->ArgName("mb")->Arg(SMALL_MB)->Setup(grow)->Teardown(shrink)->UseRealTime();
