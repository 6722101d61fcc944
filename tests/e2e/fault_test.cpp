/*
 * Makes each call of the system or C library fail once, in the laboratory: in turn, at each place where the daemon or
 * a job makes it, until there is no further place. Each call of the library must return a code within its time limit,
 * only the outcome of that call may change, nothing may leak, no job may ask in another VRF, and the next try must
 * be answered.
 */
#include <fcntl.h>
#include <sys/resource.h>

#include <array>
#include <filesystem>

#include "tests/support/laboratory.h"

static constexpr int SHORT = -1; /* no failure, but a transfer of one byte */

static const struct faulty_call {
    const char *name;
    std::vector<int> errors;
} faulty_calls[] = {
    {"close", {EIO}},
    {"dup2", {EBUSY}},
    {"epoll_create1", {EMFILE}},
    {"epoll_ctl", {ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"fcntl", {EMFILE}},
    {"fgets", {EIO}},
    {"fopen", {ENFILE}},
    {"fork", {EAGAIN, ENOMEM}},
    {"fsconfig", {EPERM}},
    {"fsmount", {EMFILE}},
    {"fsopen", {ENOMEM}},
    {"fstat", {EIO}},
    {"fstatfs", {EIO}},
    {"getaddrinfo", {EAI_MEMORY}},
    {"getdents64", {EIO}},
    {"getrlimit", {EPERM}},
    {"getsockopt", {ENOBUFS}},
    {"if_nameindex", {ENOBUFS}},
    {"if_nametoindex", {EMFILE}},
    {"ioctl", {EIO}},
    {"lstat", {EACCES}},
    {"malloc", {ENOMEM}},
    {"mkdirat", {ENOSPC}},
    {"mmap", {ENOMEM}},
    {"mount", {EPERM}},
    {"move_mount", {EBUSY}},
    {"open", {ENFILE, EINTR}},
    {"open_tree", {ENOMEM}},
    {"openat", {ENFILE}},
    {"opendir", {EMFILE}},
    {"pidfd_open", {EMFILE}},
    {"poll", {EINTR, ENOMEM}},
    {"prctl", {EINVAL}},
    {"read", {EIO}},
    {"readdir", {EIO}},
    {"realloc", {ENOMEM}},
    {"recv", {EINTR, ECONNRESET, SHORT}},
    {"recvmsg", {ENOBUFS}},
    {"select", {EBADF}},
    {"send", {EINTR, ENOBUFS, SHORT}},
    {"setns", {EPERM}},
    {"setrlimit", {EPERM}},
    {"socket", {ENOBUFS}},
    {"socketpair", {EMFILE}},
    {"stat", {EIO}},
    {"syscall", {EPERM}},
    {"timerfd_create", {EMFILE}},
    {"timerfd_settime", {EINVAL}},
    {"unshare", {ENOSPC}},
    {"waitid", {EINTR}},
    {"write", {EINTR, ENOMEM}},
};

/* The planned fault, in memory shared with the jobs. */
static struct fault_plan {
    char call[20];
    int error, vrf;
    int countdown; /* the call that decrements it from 1 fails */
    bool has_failed;
    bool has_leaked; /* a job has the host's socket, or sees the host's files */
} *const plan = shared<fault_plan>();

static bool is_armed; /* while the library runs, not the test */
static int host_only_fd = -1;
static std::string host_only_link;

static std::string link_of(int fd)
{
    char link[100] = "";
    return readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof link - 1) > 0 ? link : "";
}

/* Runs in a job that is about to resolve. A job whose binding failed can open no file. */
static void inspect_job()
{
    const std::string file = content_of("/etc/hostname");
    const bool has_own_files = faccessat(AT_FDCWD, "/run/server0.pid", F_OK, 0) != 0;
    plan->has_leaked = plan->has_leaked || link_of(host_only_fd) == host_only_link ||
                       (has_own_files && !file.empty() && file != "of VRF 1\n" && plan->vrf == 1);
}

static bool must_fail(const char *call)
{
    if (!is_armed || strcmp(plan->call, call) != 0 ||
        __atomic_fetch_sub(&plan->countdown, 1, __ATOMIC_RELAXED) != 1)
        return false;
    return plan->has_failed = true;
}

/* Fits every signature: the C calling convention ignores excess arguments. */
template <typename Real>
static long fault(Real *real, const char *call, long failure, std::array<long, 6> args)
{
    const bool is_failing = must_fail(call);
    if (strcmp(call, "getaddrinfo") == 0)
        inspect_job();
    if (is_failing && plan->error == SHORT)
        args[2] = 1;
    const bool is_done = !is_failing || plan->error == SHORT || strcmp(call, "close") == 0;
    const long result = is_done ? real(args[0], args[1], args[2], args[3], args[4], args[5]) : failure;
    if (!is_failing || plan->error == SHORT)
        return result;
    errno = plan->error;
    return failure;
}

#define FAULTY(name, failure)                                                                                \
    extern "C" long __real_##name(long, long, long, long, long, long);                                       \
    extern "C" long __wrap_##name(long a, long b, long c, long d, long e, long f)                            \
    {                                                                                                        \
        return fault(__real_##name, #name, failure, {a, b, c, d, e, f});                                     \
    }
FAULTY_CALLS

/* The test's own memory: it must not run out when malloc() fails. */
alignas(16) static char arena[64 << 20];
static size_t arena_used;

void *operator new(size_t size)
{
    const size_t at = arena_used;
    arena_used += (size + 15) & ~size_t{15};
    return arena_used <= sizeof arena ? arena + at : nullptr;
}

void operator delete(void *) noexcept {}
void operator delete(void *, size_t) noexcept {}

/* One run of a daemon, in its own process, which exits where a requirement is not met. */

#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fprintf(stderr, "line %d: not met: %s\n", __LINE__, #condition);                                 \
            _exit(1);                                                                                        \
        }                                                                                                    \
    } while (false)

template <typename Call>
static auto armed(Call call)
{
    is_armed = true;
    const auto result = call();
    is_armed = false;
    return result;
}

static int *const refusals = shared<int>();

static std::string try_to_look_up(const std::string &name, int vrf)
{
    const guint records = g_list_length(local_cache), jobs = g_list_length(job_list);
    const std::string found = armed([&] { return look_up(name, vrf); });
    const bool is_answer = found == own_addresses(vrf), has_job = found == "(-3)";
    *refusals += !is_answer;
    REQUIRE(is_answer || (found[0] == '(' && found.back() == ')'));
    REQUIRE(g_list_length(local_cache) - records <= (is_answer ? 1 : 0));
    REQUIRE(g_list_length(job_list) - jobs <= (has_job ? 1 : 0));
    REQUIRE(running_jobs == static_cast<int>(g_list_length(job_list)));
    return found;
}

/* Takes the completion of every started job, also when there was no memory for its record. */
static void take_completions(uint32_t queue)
{
    static uint64_t taken;
    linux_job_counters started;
    const auto take = [queue] {
        return linux_queue_dispatch(queue, dnscache_spawnletcb_job_done, nullptr, nullptr);
    };
    for (linux_jobs_started(&started); taken < started.background && becomes_readable(queue);)
        taken += static_cast<uint64_t>(armed(take));
    REQUIRE(taken == started.background);
}

static bool is_as_before(uint32_t queue, size_t descriptors)
{
    siginfo_t child = {};
    linux_completion none;
    linux_queue_next(queue, &none); /* reaps */
    return open_descriptors().size() == descriptors + 1 &&
           (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 || child.si_pid == 0);
}

/* Each daemon must create its own groups and load programs. */
static void remove_device_groups()
{
    std::error_code none;
    for (const auto &group : std::filesystem::directory_iterator("/sys/fs/cgroup/vrf", none))
        rmdir(group.path().c_str());
}

using step = std::function<void()>;

static void run_daemon(int vrf, const step &set_limits, const step &lift_limits)
{
    /* Jobs inherit the file, but not the socket. */
    REQUIRE(open("/etc/hosts", O_RDONLY) > 0 && (host_only_fd = socket(AF_UNIX, SOCK_STREAM, 0)) > 0);
    /* Jobs list /proc/self/fd only when the daemon has high descriptors. */
    if (strcmp(plan->call, "opendir") == 0 || strcmp(plan->call, "readdir") == 0)
        REQUIRE((host_only_fd = fcntl(host_only_fd, F_DUPFD, 500)) >= 500);
    host_only_link = link_of(host_only_fd);
    const size_t descriptors = open_descriptors().size();
    const int host_questions = questions(0);
    remove_device_groups();
    set_limits();
    uint32_t queue = armed(linux_queue_create);
    if (queue == 0) {
        lift_limits();
        queue = linux_queue_create();
    }
    armed([vrf] { return add_entry_to_dns_cache("early.lab", 123, vrf, nullptr); });
    armed([queue] { return dns_cache_init(queue, 1), 0; });
    try_to_look_up("one.lab", vrf);
    armed([vrf] { return add_entry_to_dns_cache("two.lab", 123, vrf, nullptr); });
    take_completions(queue);
    try_to_look_up("one.lab", vrf);
    armed([] { return linux_history_enable(1); });
    size_t vrfs = 0;
    linux_vrf *list = armed([&vrfs] { return linux_vrf_list(&vrfs); });
    REQUIRE(list == nullptr || vrfs == 4);
    free(list);
    dns_cache_set_timeout(-1); /* every record has expired */
    armed([] { return refresh_dns_cache(), 0; });
    REQUIRE(local_cache == nullptr);
    take_completions(queue);
    lift_limits();
    REQUIRE(linux_history_enable(1) == 0);
    if (try_to_look_up("two.lab", vrf) == "(-3)") /* the machine is busy */
        take_completions(queue);
    REQUIRE(try_to_look_up("two.lab", vrf) == own_addresses(vrf));
    take_completions(queue);
    REQUIRE(running_jobs == 0);
    REQUIRE(eventually([&] { return is_as_before(queue, descriptors); }));
    REQUIRE(vrf == 0 ? questions(0) > host_questions : questions(0) == host_questions);
    REQUIRE(!plan->has_leaked);
    empty_cache();
    REQUIRE(!has_sanitizer() || __lsan_do_recoverable_leak_check() == 0);
}

static void set_limit(__rlimit_resource resource, rlim_t soft)
{
    struct rlimit limit;
    getrlimit(resource, &limit);
    limit.rlim_cur = std::min(soft, limit.rlim_max);
    REQUIRE(setrlimit(resource, &limit) == 0);
}

static void expect_daemon_survives(int vrf, const step &set_limits, const step &lift_limits)
{
    fflush(stdout);
    const pid_t daemon = fork();
    if (daemon == 0) {
        alarm(20);
        freopen("/dev/null", "w", stdout);
        run_daemon(vrf, set_limits, lift_limits);
        _exit(0);
    }
    int status = -1;
    waitpid(daemon, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

/* Short transfers, and EINTR of calls that are retried, must not fail a lookup. */
static bool is_retried(const std::string &call, int error)
{
    return error == SHORT || (error == EINTR && (call == "send" || call == "recv" || call == "poll"));
}

/* Returns the number of places at which the call has failed. */
static int sweep(const char *call, int error, int vrf)
{
    int place = 1;
    for (;; place++) {
        SCOPED_TRACE(std::string(call) + " " + strerror(error) + " at " + std::to_string(place));
        *plan = {};
        snprintf(plan->call, sizeof plan->call, "%s", call);
        plan->error = error;
        plan->vrf = vrf;
        plan->countdown = place;
        *refusals = 0;
        expect_daemon_survives(
            vrf, [] {}, [] { plan->countdown = 0; });
        EXPECT_TRUE(*refusals == 0 || !is_retried(call, error));
        if (!plan->has_failed)
            return place - 1;
    }
}

TEST(Fault, EachSystemCallMayFailOnce)
{
    ASSERT_TRUE(shell("echo of VRF 1 > /etc/netns/vrf1/hostname"));
    for (const faulty_call &call : faulty_calls) {
        for (const int error : call.errors) {
            int places = 0;
            for (const int vrf : {1, 5, 0})
                if (!has_sanitizer() || places == 0) /* sanitizers are slow */
                    places += sweep(call.name, error, vrf);
            EXPECT_GT(places, 0) << call.name;
        }
    }
}

/* Takes all memory except that many bytes. */
static void leave_memory(rlim_t bytes)
{
    void *left = malloc(bytes);
    set_limit(RLIMIT_AS, 0);
    for (size_t size = 1 << 20; size >= 16; size /= 2)
        while (malloc(size) != nullptr)
            ;
    free(left);
}

/* Leaves that many descriptors in addition to the queue's. */
static void leave_descriptors(rlim_t count)
{
    const int next = dup(STDOUT_FILENO);
    close(next);
    set_limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + 1 + count);
}

/* Root is exempt from RLIMIT_NPROC, which counts all processes of a user: this uid has no other process. */
static void leave_processes(rlim_t count)
{
    constexpr uid_t unused_uid = 64321;
    REQUIRE(setresuid(unused_uid, unused_uid, unused_uid) == 0);
    set_limit(RLIMIT_NPROC, count);
}

/* Raises each limit from too little for any lookup to enough for all. */
TEST(Fault, LookupsRecoverWhenLimitsAreRaised)
{
    const struct {
        void (*leave)(rlim_t);
        __rlimit_resource resource;
        rlim_t most, step;
        std::vector<int> vrfs;
    } cases[] = {
        {leave_descriptors, RLIMIT_NOFILE, 40, 1, {0, 1, 5}},
        {leave_processes, RLIMIT_NPROC, 3, 1, {0}},
        {leave_memory, RLIMIT_AS, 120 << 10, 1 << 10, {0, 1, 5}},
    };
    for (const auto &c : cases)
        for (const int vrf : c.vrfs)
            for (rlim_t left = 0; left <= c.most; left += c.step) {
                if (c.resource == RLIMIT_AS && has_sanitizer())
                    continue; /* a sanitizer needs too much address space itself */
                SCOPED_TRACE(testing::Message() << "limit " << c.resource << ", " << left << ", VRF " << vrf);
                *refusals = 0;
                expect_daemon_survives(
                    vrf, [&] { c.leave(left); }, [&] { set_limit(c.resource, RLIM_INFINITY); });
                EXPECT_TRUE(left > 0 || *refusals > 0);
                EXPECT_TRUE(left < c.most || *refusals == 0);
            }
}
