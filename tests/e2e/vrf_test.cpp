/*
 * Binding to VRFs, in the laboratory: lookups of a daemon by the C library's resolver, from name servers that all
 * have the same address.
 */
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>

#include "tests/support/laboratory.h"

class Vrf : public testing::Test
{
  protected:
    void SetUp() override
    {
        queue = linux_queue_create();
        dns_cache_init(queue, 3);
    }

    void TearDown() override
    {
        empty_cache();
    }

    uint32_t queue = 0;
};

static std::string own_addresses(int vrf)
{
    const std::string number = std::to_string(vrf);
    return "192.0.2." + number + " 2001:db8::" + number;
}

/*
 * The caching daemon of the host knows the name from a hosts file, and whoever has asked it once, as this process, holds
 * its table in memory.
 */
static void poison_host()
{
    ASSERT_TRUE(
        shell("mkdir /run/nscd && echo 'enable-cache hosts yes\ncheck-files hosts no\nshared hosts yes\n"
              "persistent hosts no\npositive-time-to-live hosts 3600' > /etc/nscd.conf && "
              "echo 203.0.113.66 time.lab >> /etc/hosts && " NSCD " && getent ahosts time.lab && "
              "sed -i /time.lab/d /etc/hosts"));
    ASSERT_EQ(look_up("time.lab", 0), "203.0.113.66") << "the daemon does not answer";
    struct addrinfo *chain = nullptr;
    ASSERT_EQ(getaddrinfo("time.lab", nullptr, nullptr, &chain), 0);
    ASSERT_EQ(addresses_in(chain), "203.0.113.66");
    freeaddrinfo(chain);
    empty_cache();
}

/* Each lookup is two packets, so that every packet on a wire is accounted for. */
TEST_F(Vrf, EachIsAnsweredByItsOwnServerAndNoOther)
{
    poison_host();
    constexpr int ROUNDS = 1000;
    int foreign = 0;
    for (int i = 0; i < ROUNDS; i++)
        for (const int vrf : {1, 2, 5}) {
            foreign += look_up("time.lab", vrf) != own_addresses(vrf);
            empty_cache();
        }
    EXPECT_EQ(foreign, 0) << "of " << 3 * ROUNDS;
    for (const int vrf : {1, 2, 5})
        EXPECT_EQ(packets(vrf), 2 * ROUNDS) << vrf;
    EXPECT_EQ(packets(0), 0);
}

/* Ways to be kept from binding. Each happens in the job itself, before its body. */

static void refuse_system_call(long number)
{
    struct sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog filter = {sizeof program / sizeof *program, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        _exit(1);
}

static void drop_privilege(long user)
{
    if (setresuid(static_cast<uid_t>(user), static_cast<uid_t>(user), static_cast<uid_t>(user)) != 0)
        _exit(1);
}

static void limit_descriptors(long count)
{
    const struct rlimit limit = {static_cast<rlim_t>(count), static_cast<rlim_t>(count)};
    setrlimit(RLIMIT_NOFILE, &limit);
}

struct hindrance {
    const char *what;
    int32_t vrf;
    const char *machine; /* shell commands */
    void (*hinder)(long);
    long argument;
    const char *reason;
};

static int hindered_job(void *arg)
{
    const auto *c = static_cast<const hindrance *>(arg);
    if (c->hinder != nullptr)
        c->hinder(c->argument);
    struct addrinfo hints = {};
    server_addr_info request = {};
    return server_addr_init("time.lab", "123", &hints, c->vrf, &request) + resolve_server_hostname(&request);
}

static const hindrance hindrances[] = {
    {"no namespace, no device", 3, "", nullptr, 0, "neither a namespace /run/netns/vrf3 nor a device vrf3"},
    {"file", 8, "touch /run/netns/vrf8", nullptr, 0, "vrf8: Invalid argument"},
    {"FIFO", 9, "mkfifo /run/netns/vrf9", nullptr, 0, "vrf9: Invalid argument"},
    {"folder", 10, "mkdir /run/netns/vrf10", nullptr, 0, "vrf10: Invalid argument"},
    {"other namespace", 11, "touch /run/netns/vrf11; mount --bind /proc/self/ns/uts /run/netns/vrf11",
     nullptr, 0, "vrf11: Invalid argument"},
    {"dangling link, and a device", 12, "ln -s gone /run/netns/vrf12; ip link add vrf12 type veth", nullptr,
     0, "vrf12: No such file"},
    {"negative", -1, "", nullptr, 0, "negative number: Invalid"},
    {"most negative", INT32_MIN, "", nullptr, 0, "negative number: Invalid"},
    {"no privilege for a namespace", 1, "", drop_privilege, 65534, "vrf1: Operation not permitted"},
    {"no privilege for a device", 5, "", drop_privilege, 65534,
     "making the control group vrf: Permission denied"},
    {"no descriptor", 1, "", limit_descriptors, 3, "vrf1: Too many open files"},
    {"no descriptor for a device", 5, "", limit_descriptors, 3, "vrf5: Too many open files"},
    {"own files are a file", 13, "ip netns add vrf13; touch /etc/netns/vrf13", nullptr, 0,
     "vrf13/gai.conf: Not a dir"},
    {"own file is a FIFO", 14, "ip netns add vrf14; mkdir /etc/netns/vrf14; mkfifo /etc/netns/vrf14/hosts",
     nullptr, 0, "vrf14/hosts, which is no regular file"},
    {"own file is a dangling link", 15,
     "ip netns add vrf15; mkdir /etc/netns/vrf15; ln -s gone /etc/netns/vrf15/resolv.conf", nullptr, 0,
     "vrf15/resolv.conf: No such file"},
    {"nothing to lay it over", 16,
     "ip netns add vrf16; mkdir /etc/netns/vrf16; touch /etc/netns/vrf16/gai.conf", nullptr, 0,
     "gai.conf over /etc/gai.conf: No such file"},
    {"namespaces refused", 1, "", refuse_system_call, SYS_setns, "vrf1: Input/output error"},
    {"no view of files, no namespace to flee to", 1, "", refuse_system_call, SYS_unshare, "view"},
    {"mounts refused", 1, "", refuse_system_call, SYS_mount, "Input/output error"},
    {"own files refused", 1, "", refuse_system_call, SYS_open_tree, "vrf1/resolv.conf: Input/output error"},
    {"laying over refused", 1, "", refuse_system_call, SYS_move_mount, "over /etc/resolv.conf: Input/output"},
    {"programs refused", 5, "", refuse_system_call, SYS_bpf,
     "program of a control group: Input/output error"},
    {"no group can be made", 6, "ip link add vrf6 type veth; echo 1 > /sys/fs/cgroup/cgroup.max.depth",
     nullptr, 0, "making the control group vrf6: Resource temporarily unavailable"},
    {"unified groups covered", 5, "mount -t tmpfs none /sys/fs/cgroup", nullptr, 0,
     "unified hierarchy: No such file"},
    {"no unified groups", 5, "while umount -l -R /sys/fs/cgroup; do :; done", nullptr, 0,
     "unified hierarchy: No such file"},
};

static std::string next_problem(uint64_t *cursor)
{
    linux_history_record record;
    while (linux_history_read(cursor, &record) == 1)
        if (record.event_class == LINUX_HISTORY_VRF_PROBLEM)
            return reinterpret_cast<const char *>(record.record) + sizeof(uint32_t);
    return "no problem";
}

TEST_F(Vrf, ReachesNothingWhenItCannotBeBound)
{
    uint64_t cursor = 0;
    poison_host();
    linux_history_enable(1);
    for (hindrance c : hindrances) {
        SCOPED_TRACE(c.what);
        EXPECT_TRUE(shell(c.machine));
        const job_report report = run_job(hindered_job, &c);
        const std::string problem = next_problem(&cursor);
        EXPECT_NE(problem.find(c.reason), problem.npos) << problem;
        EXPECT_NE(report.result != 0, report.code == LINUX_JOB_NO_RESULT)
            << "neither failed nor ended itself";
        EXPECT_TRUE(std::all_of(report.buffer.begin(), report.buffer.end(),
                                [](char byte) { return byte == 0 || byte == ENTRY_FAILED; }));
    }
    for (const int vrf : {0, 1, 2, 5})
        EXPECT_EQ(packets(vrf), 0) << vrf;
}

/* The daemon's own file is replaced, as a DHCP client does it, and what lay over it is gone. */
TEST_F(Vrf, GivesNoAnswerWhenItsFilesWereTakenAway)
{
    ASSERT_TRUE(shell("echo 203.0.113.66 time.lab > /run/hosts; kill -STOP $(cat /run/server1.pid)"));
    blocking_timeout = 1;
    ASSERT_EQ(look_up("time.lab", 1), "(-3)");
    ASSERT_TRUE(eventually([] { return packets(1) >= 4; })) << "the second job has not asked";
    ASSERT_TRUE(shell("cp /run/hosts /etc/resolv.conf.new && mv /etc/resolv.conf.new /etc/resolv.conf && "
                      "kill -CONT $(cat /run/server1.pid)"));
    const linux_completion done = next_completion(queue);
    EXPECT_EQ(done.syserr, static_cast<uint32_t>(LINUX_JOB_NO_RESULT));
    dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
                                 done.ret_syserr);
    EXPECT_EQ(local_cache, nullptr);
    EXPECT_EQ(look_up("time.lab", 1), own_addresses(1));
}
