/*
 * Binding to VRFs, in the laboratory: a daemon looks names up with the C library's resolver, from name servers that
 * all have the same address.
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
 * The host's nscd has cached the name from a hosts file. A process that has asked it once, as this one has, keeps its
 * table mapped.
 */
static void poison_nscd()
{
    ASSERT_TRUE(
        shell("mkdir /run/nscd && echo 'enable-cache hosts yes\ncheck-files hosts no\nshared hosts yes\n"
              "persistent hosts no\npositive-time-to-live hosts 3600' > /etc/nscd.conf && "
              "echo 203.0.113.66 time.lab >> /etc/hosts && " NSCD " && getent ahosts time.lab && "
              "sed -i /time.lab/d /etc/hosts"));
    ASSERT_EQ(look_up("time.lab", 0), "203.0.113.66") << "nscd does not answer";
    struct addrinfo *chain = nullptr;
    ASSERT_EQ(getaddrinfo("time.lab", nullptr, nullptr, &chain), 0);
    ASSERT_EQ(addresses_in(chain), "203.0.113.66");
    freeaddrinfo(chain);
    empty_cache();
}

/* Each lookup sends one packet per address family of the VRF, so every packet on the wires is accounted for. */
TEST(Vrf, EachVrfAsksOnlyItsOwnServer)
{
    poison_nscd();
    constexpr int ROUNDS = 1000;
    int foreign = 0;
    dns_cache_init(linux_queue_create(), 20); /* seconds: enough on a busy machine */
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

/* Faults that prevent binding. The job itself injects its fault, before it binds. */

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

/* Like a process that was moved out of its container's control group from outside the container. */
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

struct bind_fault {
    const char *what;
    int32_t vrf;
    const char *setup; /* shell commands, run by the test */
    void (*inject)(long);
    long argument;
    const char *reason;
    bool exits = false; /* the job, since it cannot be isolated from the network */
};

static void inject_fault(const bind_fault *c)
{
    if (c->inject != nullptr)
        c->inject(c->argument);
}

static int faulty_lookup(void *arg)
{
    const auto *c = static_cast<const bind_fault *>(arg);
    struct addrinfo hints = {};
    server_addr_info request = {};
    inject_fault(c);
    return server_addr_init("time.lab", "123", &hints, c->vrf, &request) + resolve_server_hostname(&request);
}

static ino_t own_network()
{
    struct stat status = {};
    stat("/proc/self/ns/net", &status);
    return status.st_ino;
}

struct binding {
    int result;
    ino_t network;
    bool gets_socket;
    char reason[100]; /* text of errno */
};

static int faulty_binding(void *arg)
{
    const auto *c = static_cast<const bind_fault *>(arg);
    binding found = {};
    inject_fault(c);
    found.result = nsbind_set_global_context(c->vrf);
    snprintf(found.reason, sizeof found.reason, "%s", strerror(errno));
    found.network = own_network();
    found.gets_socket = socket(AF_UNIX, SOCK_STREAM, 0) >= 0;
    spawnlet_done(&found, sizeof found);
    return 0;
}

static const bind_fault bind_faults[] = {
    {"no namespace, no device", 3, "", nullptr, 0, "neither a namespace /run/netns/vrf3 nor a device vrf3"},
    {"file", 8, "touch /run/netns/vrf8", nullptr, 0, "vrf8: Invalid argument"},
    {"FIFO", 9, "mkfifo /run/netns/vrf9", nullptr, 0, "vrf9: Invalid argument"},
    {"folder", 10, "mkdir /run/netns/vrf10", nullptr, 0, "vrf10: Invalid argument"},
    {"other namespace", 11, "touch /run/netns/vrf11; mount --bind /proc/self/ns/uts /run/netns/vrf11",
     nullptr, 0, "vrf11: Invalid argument"},
    {"dangling link beside a device", 12, "ln -s gone /run/netns/vrf12; ip link add vrf12 type veth", nullptr,
     0, "vrf12: No such file"},
    {"negative", -1, "", nullptr, 0, "negative number: Invalid"},
    {"most negative", INT32_MIN, "", nullptr, 0, "negative number: Invalid"},
    {"no privilege for a namespace", 1, "", drop_privilege, 65534, "vrf1: Operation not permitted"},
    {"no privilege for a device", 5, "", drop_privilege, 65534,
     "mounting the unified hierarchy of control groups: Operation not permitted"},
    {"no descriptor", 1, "", limit_descriptors, 3, "vrf1: Too many open files", true},
    {"no descriptor for a device", 5, "", limit_descriptors, 3, "vrf5: Too many open files", true},
    {"already bound to another VRF", 2, "", bind_before, 1, "bound before: Device or resource busy"},
    {"/etc/netns/vrf13 is a file", 13, "ip netns add vrf13; touch /etc/netns/vrf13", nullptr, 0,
     "vrf13/gai.conf: Not a dir"},
    {"own file is a FIFO", 14, "ip netns add vrf14; mkdir /etc/netns/vrf14; mkfifo /etc/netns/vrf14/hosts",
     nullptr, 0, "vrf14/hosts, which is no regular file"},
    {"own file is a dangling link", 15,
     "ip netns add vrf15; mkdir /etc/netns/vrf15; ln -s gone /etc/netns/vrf15/resolv.conf", nullptr, 0,
     "vrf15/resolv.conf: No such file"},
    {"own file without one in /etc", 16,
     "ip netns add vrf16; mkdir /etc/netns/vrf16; touch /etc/netns/vrf16/gai.conf", nullptr, 0,
     "gai.conf over /etc/gai.conf: No such file"},
    {"setns refused", 1, "", refuse_system_call, SYS_setns, "vrf1: Input/output error"},
    {"unshare refused", 1, "", refuse_system_call, SYS_unshare, "view", true},
    {"mount refused", 1, "", refuse_system_call, SYS_mount, "Input/output error"},
    {"open_tree refused", 1, "", refuse_system_call, SYS_open_tree, "vrf1/resolv.conf: Input/output error"},
    {"move_mount refused", 1, "", refuse_system_call, SYS_move_mount, "over /etc/resolv.conf: Input/output"},
    {"bpf refused", 5, "", refuse_system_call, SYS_bpf,
     "asking for programs (needs CAP_NET_ADMIN): Input/output error"},
    {"fsopen refused", 5, "", refuse_system_call, SYS_fsopen,
     "mounting the unified hierarchy of control groups: Input/output error"},
    {"outside the root of its control groups", 5, "mkdir /sys/fs/cgroup/inner", leave_control_groups, 0,
     "own control group /.. is outside the root of its namespace"},
    {"no control group can be made", 5,
     "mkdir /sys/fs/cgroup/limited; echo 0 > /sys/fs/cgroup/limited/cgroup.max.depth", enter_limited_group, 0,
     "below /limited/: Resource temporarily unavailable"},
#ifndef SYS_socketcall /* where it exists, all socket calls go through it */
    {"getsockopt, namespace", 1, "", refuse_system_call, SYS_getsockopt, "device of a socket: Input/output"},
    {"getsockopt, device", 5, "", refuse_system_call, SYS_getsockopt, "device of a socket: Input/output"},
#endif
    {"pipes is a file", 2, "mount -t tmpfs none /var/lib; mkdir /var/lib/sss; touch /var/lib/sss/pipes",
     nullptr, 0, "hiding /var/lib/sss/pipes: Not a directory"},
};

/* False in a chroot, and where the machine forbids it. */
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

TEST(Vrf, FailedBindingReachesNothing)
{
    uint64_t cursor = 0;
    const bool has_user_namespaces = users_get_namespaces();
    poison_nscd();
    linux_history_enable(1);
    for (bind_fault c : bind_faults) {
        SCOPED_TRACE(c.what);
        EXPECT_TRUE(shell(c.setup));
        const job_report lookup = run_job(faulty_lookup, &c);
        const std::string problem = next_problem(&cursor);
        EXPECT_NE(problem.find(c.reason), problem.npos) << problem;
        EXPECT_NE(lookup.result != 0, lookup.code == LINUX_JOB_NO_RESULT)
            << "the lookup must fail, or the job exit";
        EXPECT_TRUE(std::all_of(lookup.buffer.begin(), lookup.buffer.end(),
                                [](char byte) { return byte == 0 || byte == ENTRY_FAILED; }));

        const job_report bound = run_job(faulty_binding, &c);
        EXPECT_EQ(next_problem(&cursor), problem);
        const bool exits = c.exits || (c.inject == drop_privilege && !has_user_namespaces);
        EXPECT_EQ(bound.code == LINUX_JOB_NO_RESULT, exits) << bound.code;
        binding found = {};
        memcpy(&found, bound.buffer.data(), std::min(bound.buffer.size(), sizeof found));
        if (exits)
            continue;
        EXPECT_EQ(found.result, -1);
        EXPECT_NE(problem.find(found.reason), problem.npos) << found.reason;
        EXPECT_TRUE(found.network != 0 && found.network != own_network());
        EXPECT_FALSE(found.gets_socket);
    }
    for (const int vrf : {0, 1, 2, 5})
        EXPECT_EQ(packets(vrf), 0) << vrf;
}

/*
 * While a job waits for its answer, the host's resolv.conf is replaced, as a DHCP client does; this removes the mount
 * over it. Or another device takes the name of the job's device, and a second job is bound to that device.
 */
TEST(Vrf, RunningJobKeepsItsBindingOrFails)
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
        ASSERT_TRUE(eventually([&] { return packets(c.vrf) >= 4; })) << "the background job has not asked";
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
