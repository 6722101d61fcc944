/*
 * Binding to VRFs, in the laboratory: lookups of a daemon by the C library's resolver, from name servers that all
 * have the same address.
 */
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>

#include "platform/nsbind.h"
#include "tests/support/laboratory.h"

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

/* Each lookup is a packet for each kind of address that the VRF itself has: every packet on a wire is accounted for. */
TEST(Vrf, EachIsAnsweredByItsOwnServerAndNoOther)
{
    poison_host();
    constexpr int ROUNDS = 1000;
    int foreign = 0;
    dns_cache_init(linux_queue_create(), 20); /* seconds, on a busy machine */
    for (int i = 0; i < ROUNDS; i++)
        for (const int vrf : {1, 2, 5}) {
            foreign += look_up("time.lab", vrf) != own_addresses(vrf);
            empty_cache();
        }
    EXPECT_EQ(foreign, 0) << "of " << 3 * ROUNDS;
    for (const int vrf : {1, 2, 5})
        EXPECT_EQ(packets(vrf), (vrf != 2 ? 2 : 1) * ROUNDS) << vrf;
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

static void bind_before(long vrf)
{
    if (nsbind_set_global_context(static_cast<int32_t>(vrf)) != 0)
        _exit(1);
}

static void enter_control_group(const char *name, pid_t process)
{
    std::ofstream("/sys/fs/cgroup/" + std::string(name) + "/cgroup.procs") << process;
}

static void enter_limited_group(long)
{
    enter_control_group("limited", 0);
}

/* As a process that was moved out of its container's control group, by one that is not in that container. */
static void leave_control_groups(long)
{
    int told[2];
    char word = 0;
    enter_control_group("inner", 0);
    const pid_t mover = pipe(told) == 0 ? fork() : -1;
    if (mover == 0) {
        if (read(told[0], &word, 1) == 1)
            enter_control_group("", getppid());
        _exit(0);
    }
    if (unshare(CLONE_NEWCGROUP) != 0 || write(told[1], &word, 1) != 1 || waitpid(mover, nullptr, 0) != mover)
        _exit(1);
}

struct hindrance {
    const char *what;
    int32_t vrf;
    const char *machine; /* shell commands */
    void (*hinder)(long);
    long argument;
    const char *reason;
    bool ends = false; /* the job, since it can be put nowhere */
};

static void prepare(const hindrance *c)
{
    if (c->hinder != nullptr)
        c->hinder(c->argument);
}

static int hindered_lookup(void *arg)
{
    const auto *c = static_cast<const hindrance *>(arg);
    struct addrinfo hints = {};
    server_addr_info request = {};
    prepare(c);
    return server_addr_init("time.lab", "123", &hints, c->vrf, &request) + resolve_server_hostname(&request);
}

static ino_t own_namespace()
{
    struct stat status = {};
    stat("/proc/self/ns/net", &status);
    return status.st_ino;
}

struct binding {
    int result;
    ino_t name_space;
    bool gets_socket;
    char reason[100]; /* by errno */
};

static int hindered_binding(void *arg)
{
    const auto *c = static_cast<const hindrance *>(arg);
    binding found = {};
    prepare(c);
    found.result = nsbind_set_global_context(c->vrf);
    snprintf(found.reason, sizeof found.reason, "%s", strerror(errno));
    found.name_space = own_namespace();
    found.gets_socket = socket(AF_UNIX, SOCK_STREAM, 0) >= 0;
    spawnlet_done(&found, sizeof found);
    return 0;
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
     "mounting the unified hierarchy of control groups: Operation not permitted"},
    {"no descriptor", 1, "", limit_descriptors, 3, "vrf1: Too many open files", true},
    {"no descriptor for a device", 5, "", limit_descriptors, 3, "vrf5: Too many open files", true},
    {"bound already", 2, "", bind_before, 1, "bound before: Device or resource busy"},
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
    {"no view of files, no namespace to flee to", 1, "", refuse_system_call, SYS_unshare, "view", true},
    {"mounts refused", 1, "", refuse_system_call, SYS_mount, "Input/output error"},
    {"own files refused", 1, "", refuse_system_call, SYS_open_tree, "vrf1/resolv.conf: Input/output error"},
    {"laying over refused", 1, "", refuse_system_call, SYS_move_mount, "over /etc/resolv.conf: Input/output"},
    {"programs refused", 5, "", refuse_system_call, SYS_bpf,
     "asking for programs (needs CAP_NET_ADMIN): Input/output error"},
    {"control groups refused", 5, "", refuse_system_call, SYS_fsopen,
     "mounting the unified hierarchy of control groups: Input/output error"},
    {"outside the root of its control groups", 5, "mkdir /sys/fs/cgroup/inner", leave_control_groups, 0,
     "own control group /.. is outside the root of its namespace"},
    {"no group can be made", 5,
     "mkdir /sys/fs/cgroup/limited; echo 0 > /sys/fs/cgroup/limited/cgroup.max.depth", enter_limited_group, 0,
     "below /limited/: Resource temporarily unavailable"},
#ifndef SYS_socketcall /* through which all the socket calls go where it exists */
    {"no socket, namespace", 1, "", refuse_system_call, SYS_getsockopt, "device of a socket: Input/output"},
    {"no socket, device", 5, "", refuse_system_call, SYS_getsockopt, "device of a socket: Input/output"},
#endif
    {"no folder to hide", 2, "mount -t tmpfs none /var/lib; mkdir /var/lib/sss; touch /var/lib/sss/pipes",
     nullptr, 0, "hiding /var/lib/sss/pipes: Not a directory"},
};

/* Not in a chroot, and not where the machine forbids it. */
static bool users_get_namespaces()
{
    return in_its_own_process(
        [] { return drop_privilege(65534), unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0; });
}

static std::string next_problem(uint64_t *cursor)
{
    linux_history_record record;
    while (linux_history_read(cursor, &record) == 1)
        if (record.event_class == LINUX_HISTORY_VRF_PROBLEM)
            return reinterpret_cast<const char *>(record.record) + sizeof(uint32_t);
    return "no problem";
}

TEST(Vrf, ReachesNothingWhenItCannotBeBound)
{
    uint64_t cursor = 0;
    const bool has_refuge = users_get_namespaces();
    poison_host();
    linux_history_enable(1);
    for (hindrance c : hindrances) {
        SCOPED_TRACE(c.what);
        EXPECT_TRUE(shell(c.machine));
        const job_report lookup = run_job(hindered_lookup, &c);
        const std::string problem = next_problem(&cursor);
        EXPECT_NE(problem.find(c.reason), problem.npos) << problem;
        EXPECT_NE(lookup.result != 0, lookup.code == LINUX_JOB_NO_RESULT)
            << "neither failed nor ended itself";
        EXPECT_TRUE(std::all_of(lookup.buffer.begin(), lookup.buffer.end(),
                                [](char byte) { return byte == 0 || byte == ENTRY_FAILED; }));

        const job_report bound = run_job(hindered_binding, &c);
        EXPECT_EQ(next_problem(&cursor), problem);
        const bool ends = c.ends || (c.hinder == drop_privilege && !has_refuge);
        EXPECT_EQ(bound.code == LINUX_JOB_NO_RESULT, ends) << bound.code;
        binding found = {};
        memcpy(&found, bound.buffer.data(), std::min(bound.buffer.size(), sizeof found));
        if (ends)
            continue;
        EXPECT_EQ(found.result, -1);
        EXPECT_NE(problem.find(found.reason), problem.npos) << found.reason;
        EXPECT_TRUE(found.name_space != 0 && found.name_space != own_namespace());
        EXPECT_FALSE(found.gets_socket);
    }
    for (const int vrf : {0, 1, 2, 5})
        EXPECT_EQ(packets(vrf), 0) << vrf;
}

/*
 * While a job waits for its answer, the daemon's own file is replaced, as a DHCP client does it, and what lay over it is
 * gone; or another device gets the name of the job's, and a second job is bound to that.
 */
TEST(Vrf, KeepsToWhatItWasBoundToOrGivesNoAnswer)
{
    const struct {
        int vrf;
        const char *change;
        uint32_t code;
        const char *meanwhile, *cached;
    } cases[] = {
        {1, "cp /etc/resolv.conf /etc/new && mv /etc/new /etc/resolv.conf", LINUX_JOB_NO_RESULT, nullptr,
         nullptr},
        {5,
         "rename() { ip link set $1 down; ip link set $1 name $2 && ip link set $2 up; }; "
         "reach() { ip neighbour replace 10.9.0.53 lladdr 02:00:00:09:00:53 nud permanent dev $1; }; "
         "rename vrf5 old && rename uplink vrf5 && reach vrf5 && (ip link show port5 || reach old) > /dev/null",
         0, "192.0.2.0 2001:db8::", "192.0.2.5 2001:db8::5"},
    };
    const uint32_t queue = linux_queue_create();
    dns_cache_init(queue, 1);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.vrf);
        const std::string server = " $(cat /run/server" + std::to_string(c.vrf) + ".pid)";
        ASSERT_TRUE(shell("kill -STOP" + server));
        ASSERT_EQ(look_up("time.lab", c.vrf), "(-3)");
        ASSERT_TRUE(eventually([&] { return packets(c.vrf) >= 4; })) << "the second job has not asked";
        ASSERT_TRUE(shell(c.change));
        if (c.meanwhile != nullptr) {
            EXPECT_EQ(look_up("next.lab", c.vrf), c.meanwhile);
        }
        ASSERT_TRUE(shell("kill -CONT" + server));
        const linux_completion done = next_completion(queue);
        EXPECT_EQ(done.syserr, c.code);
        EXPECT_EQ(done.ret_info != nullptr, c.code == 0);
        dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
                                     done.ret_syserr);
        if (c.cached != nullptr) {
            EXPECT_EQ(look_up("time.lab", c.vrf), c.cached);
        }
    }
}
