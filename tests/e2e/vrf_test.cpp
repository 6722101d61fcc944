/*
 * Binding to VRFs, in the laboratory: a daemon looks names up with the C library's resolver, from name servers that
 * all have the same address.
 */
#include <linux/bpf.h>
#include <sched.h>

#include <algorithm>

#include "platform/nsbind.h"
#include "tests/support/laboratory.h"

class Vrf : public testing::Test
{
  protected:
    /*
     * The host's nscd has cached the name from a hosts file. A process that has asked it once, as this one does,
     * keeps its table mapped.
     */
    static void SetUpTestSuite()
    {
        struct addrinfo *chain = nullptr;
        EXPECT_TRUE(shell(
            "[ -d /run/nscd ] || { mkdir /run/nscd && echo 'enable-cache hosts yes\ncheck-files hosts no\n"
            "shared hosts yes\npersistent hosts no\npositive-time-to-live hosts 3600' > /etc/nscd.conf && "
            "echo 203.0.113.66 time.lab >> /etc/hosts && " NSCD " && getent ahosts time.lab && "
            "sed -i /time.lab/d /etc/hosts; }"));
        getaddrinfo("time.lab", nullptr, nullptr, &chain);
        ASSERT_EQ(addresses_in(chain), "203.0.113.66") << "nscd does not answer";
        freeaddrinfo(chain);
    }
};

static std::vector<int> all_questions()
{
    return {questions(0), questions(1), questions(2), questions(5)};
}

/* Each lookup asks once for each address family of the VRF. */
TEST_F(Vrf, EachVrfAsksOnlyItsOwnServer)
{
    constexpr int ROUNDS = 1000;
    std::vector<int> expected = all_questions();
    alone([] {
        dns_cache_init(linux_queue_create(), 20); /* seconds: enough on a busy machine */
        for (int i = 0; i < ROUNDS; i++)
            for (const int vrf : {1, 2, 5}) {
                EXPECT_EQ(look_up("time.lab", vrf), own_addresses(vrf));
                empty_cache();
            }
    });
    expected[1] += 2 * ROUNDS;
    expected[2] += ROUNDS;
    expected[3] += 2 * ROUNDS;
    EXPECT_EQ(all_questions(), expected);
}

/* Faults that prevent binding. The job itself injects its fault, before it binds. */

static void drop_privilege()
{
    if (setresuid(65534, 65534, 65534) != 0)
        _exit(1);
}

/* The kernel refuses user namespaces to a process in a chroot. */
static void enter_jail()
{
    if (chroot("/run/jail") != 0)
        _exit(1);
    drop_privilege();
}

static bool query_fails; /* and no other command of bpf() */

extern "C" long __real_syscall(long number, long a, long b, long c);

extern "C" long __wrap_syscall(long number, long a, long b, long c)
{
    if (!query_fails || a != BPF_PROG_QUERY)
        return __real_syscall(number, a, b, c);
    errno = EIO;
    return -1;
}

static constexpr char things_that_are_no_vrfs[] =
    "cd /run/netns; mkfifo vrf9; "
    "cd /etc/netns; for v in 14 15 16; do ip netns add vrf$v; mkdir vrf$v; done; "
    "mkfifo vrf14/hosts; ln -s gone vrf15/resolv.conf; "
    "touch vrf16/gai.conf; mkdir -p /run/jail/proc; mount --bind /proc /run/jail/proc";

static constexpr struct bind_fault {
    int32_t vrf;
    const char *reason;
    void (*inject)() = [] {};
    bool exits = false; /* the job, since it cannot be isolated from the network */
} bind_faults[] = {
    {3, "neither a namespace /run/netns/vrf3 nor a device vrf3"},
    {9, "vrf9: Invalid argument"},
    {14, "vrf14/hosts, which is no regular file"},
    {15, "vrf15/resolv.conf: No such file"},
    {16, "gai.conf over /etc/gai.conf: No such file"},
    {3, "neither a namespace", enter_jail, true},
    {INT32_MIN, "negative number: Invalid"},
    {1, "vrf1: Operation not permitted", drop_privilege},
    {5, "mounting the unified hierarchy of control groups: Operation not permitted", drop_privilege},
    {5, "asking for programs (needs CAP_NET_ADMIN): Input/output", [] { query_fails = true; }},
    {2, "bound before: Device or resource busy", [] { nsbind_set_global_context(1); }},
    {2, "hiding /var/lib/sss/pipes: Not a directory",
     [] { shell("mount -t tmpfs none /var/lib; mkdir /var/lib/sss; touch /var/lib/sss/pipes"); }},
};

static ino_t own_network()
{
    struct stat status = {};
    stat("/proc/self/ns/net", &status);
    return status.st_ino;
}

static struct {
    int result;
    ino_t network;
    bool gets_socket;
    int error;
} *const bound = shared<std::remove_pointer_t<decltype(bound)>>();

static int bind_and_look_up(void *arg)
{
    const auto *c = static_cast<const bind_fault *>(arg);
    struct addrinfo hints = {};
    server_addr_info request = {};
    server_addr_init("time.lab", "123", &hints, c->vrf, &request);
    c->inject();
    bound->result = nsbind_set_global_context(c->vrf);
    bound->error = errno;
    bound->network = own_network();
    bound->gets_socket = socket(AF_UNIX, SOCK_STREAM, 0) >= 0;
    return resolve_server_hostname(&request);
}

/* A job that returns 0, unless it is in a chroot or the machine forbids it */
static int enter_own_user_namespace(void *)
{
    drop_privilege();
    return unshare(CLONE_NEWUSER | CLONE_NEWNET);
}

/* The first problem since the cursor, which moves to the end. */
static std::string next_problem(uint64_t *cursor)
{
    std::string first;
    linux_history_record record;
    while (linux_history_read(cursor, &record) == 1)
        if (record.event_class == LINUX_HISTORY_VRF_PROBLEM && first.empty())
            first = reinterpret_cast<const char *>(record.record) + sizeof(uint32_t);
    return first;
}

TEST_F(Vrf, FailedBindingReachesNothing)
{
    uint64_t cursor = 0;
    static const bool is_set_up = shell(things_that_are_no_vrfs);
    ASSERT_TRUE(is_set_up);
    const bool has_user_namespaces = run_job(enter_own_user_namespace).result == 0;
    const std::vector<int> before = all_questions();
    linux_history_enable(1);
    next_problem(&cursor);
    for (bind_fault c : bind_faults) {
        SCOPED_TRACE(testing::Message() << c.vrf << ": " << c.reason);
        *bound = {};
        const job_report lookup = run_job(bind_and_look_up, &c);
        const std::string problem = next_problem(&cursor);
        EXPECT_NE(problem.find(c.reason), problem.npos) << problem;
        const bool exits = c.exits || (c.inject == drop_privilege && !has_user_namespaces);
        EXPECT_EQ(lookup.code, exits ? LINUX_JOB_NO_RESULT : LINUX_JOB_OK);
        EXPECT_EQ(lookup.result != 0, !exits);
        EXPECT_TRUE(std::all_of(lookup.buffer.begin(), lookup.buffer.end(),
                                [](char byte) { return byte == 0 || byte == ENTRY_FAILED; }));
        EXPECT_EQ(bound->result, exits ? 0 : -1);
        EXPECT_TRUE(exits || problem.ends_with(strerror(bound->error))) << bound->error;
        EXPECT_EQ(bound->network != 0 && bound->network != own_network(), !exits);
        EXPECT_FALSE(bound->gets_socket);
    }
    EXPECT_TRUE(shell("umount /var/lib"));
    EXPECT_EQ(all_questions(), before);
}
