/*
 * Makes each call of the system or C library fail once, in the laboratory: in turn, at each place where the daemon or
 * a job makes it, until there is no further place. Each call of the library must return a code within its time limit,
 * only the outcome of that call may change, nothing may leak, no job may ask in another VRF, and the next try must
 * be answered.
 */

#include <array>
#include <filesystem>

#include "tests/support/laboratory.h"

static constexpr int SHORT = -1;

/* The planned fault, in memory shared with the jobs. */
static struct fault_plan {
    char call[20];
    int error, vrf;
    int countdown; /* the call that decrements it from 1 fails */
    bool has_failed;
    bool has_leaked; /* a job has the host's socket, or sees the host's files */
    int refusals;    /* lookups without an answer */
} *const plan = shared<fault_plan>();

static bool is_armed; /* while the library runs, not the test */
static int host_only_fd = -1;
static std::string host_only_link;

static std::string link_of(int fd)
{
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
}

/* Runs in a job that is about to resolve. A job whose binding failed can open no file. */
static void inspect_job()
{
    const std::string file = content_of("/etc/hostname");
    const bool has_own_files = faccessat(AT_FDCWD, "/run/server0.pid", F_OK, 0) != 0;
    plan->has_leaked = plan->has_leaked || link_of(host_only_fd) == host_only_link ||
                       (has_own_files && !file.empty() && file != "of VRF 1\n" && plan->vrf == 1);
}

/* Fits every signature: the C calling convention ignores excess arguments. */
template <typename Real>
static long fault(Real *real, const char *call, long failure, std::array<long, 6> args)
{
    const bool is_failing = is_armed && strcmp(plan->call, call) == 0 &&
                            __atomic_fetch_sub(&plan->countdown, 1, __ATOMIC_RELAXED) == 1;
    const bool is_short = is_failing && plan->error == SHORT;
    if (strcmp(call, "getaddrinfo") == 0)
        inspect_job();
    if (is_short)
        args[2] = 1;
    if (is_failing)
        plan->has_failed = true;
    const bool is_done = !is_failing || is_short || strcmp(call, "close") == 0;
    const long result = is_done ? real(args[0], args[1], args[2], args[3], args[4], args[5]) : failure;
    if (!is_failing || is_short)
        return result;
    errno = plan->error;
    return failure;
}

#define FAULTY(name, failure, ...)                                                                           \
    extern "C" long __real_##name(long, long, long, long, long, long);                                       \
    extern "C" long __wrap_##name(long a, long b, long c, long d, long e, long f)                            \
    {                                                                                                        \
        return fault(__real_##name, #name, failure, {a, b, c, d, e, f});                                     \
    }
#include "tests/e2e/faulty_calls.def"
#undef FAULTY

/* One run of a daemon, in its own process, which exits where a requirement is not met. */

static void require(bool condition, int line = __builtin_LINE())
{
    if (condition)
        return;
    fprintf(stderr, "line %d: not met\n", line);
    _exit(1);
}

template <typename Call>
static auto armed(Call call)
{
    is_armed = true;
    const auto result = call();
    is_armed = false;
    return result;
}

static std::string try_to_look_up(const std::string &name, int vrf)
{
    const guint records = g_list_length(local_cache), jobs = g_list_length(job_list);
    const std::string found = armed([&] { return look_up(name, vrf); });
    const bool is_answer = found == own_addresses(vrf), has_job = found == "(-3)";
    plan->refusals += !is_answer;
    require(is_answer || (found[0] == '(' && found.back() == ')'));
    require(g_list_length(local_cache) - records <= (is_answer ? 1 : 0));
    require(g_list_length(job_list) - jobs <= (has_job ? 1 : 0));
    require(running_jobs == static_cast<int>(g_list_length(job_list)));
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
    require(taken == started.background);
}

static bool is_as_before(uint32_t queue, size_t descriptors)
{
    siginfo_t child = {};
    linux_completion none;
    linux_queue_next(queue, &none); /* reaps */
    return open_descriptors().size() == descriptors + 1 &&
           (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 || child.si_pid == 0);
}

static void run_daemon(int vrf)
{
    /* Jobs inherit the file, but not the socket. */
    require(open("/etc/hosts", O_RDONLY) > 0 && (host_only_fd = socket(AF_UNIX, SOCK_STREAM, 0)) > 0);
    /* Jobs list /proc/self/fd only when the daemon has high descriptors. */
    if (strcmp(plan->call, "opendir") == 0 || strcmp(plan->call, "readdir") == 0)
        require((host_only_fd = fcntl(host_only_fd, F_DUPFD, 500)) >= 500);
    host_only_link = link_of(host_only_fd);
    const size_t descriptors = open_descriptors().size();
    const int host_questions = questions(0);
    uint32_t queue = armed(linux_queue_create);
    if (queue == 0)
        queue = linux_queue_create();
    armed([vrf] { return add_entry_to_dns_cache("early.lab", 123, vrf, nullptr); });
    armed([queue] { return dns_cache_init(queue, 1), 0; });
    try_to_look_up("one.lab", vrf);
    armed([vrf] { return add_entry_to_dns_cache("two.lab", 123, vrf, nullptr); });
    take_completions(queue);
    try_to_look_up("one.lab", vrf);
    armed([] { return linux_history_enable(1); });
    size_t vrfs = 0;
    linux_vrf *list = armed([&vrfs] { return linux_vrf_list(&vrfs); });
    require(list == nullptr || vrfs == 4);
    free(list);
    dns_cache_set_timeout(-1); /* every record has expired */
    armed([] { return refresh_dns_cache(), 0; });
    require(local_cache == nullptr);
    take_completions(queue);
    plan->countdown = 0;
    require(linux_history_enable(1) == 0);
    if (try_to_look_up("two.lab", vrf) == "(-3)") /* the machine is busy */
        take_completions(queue);
    require(try_to_look_up("two.lab", vrf) == own_addresses(vrf));
    take_completions(queue);
    require(running_jobs == 0);
    require(eventually([&] { return is_as_before(queue, descriptors); }));
    require(vrf == 0 ? questions(0) > host_questions : questions(0) == host_questions);
    require(!plan->has_leaked);
    empty_cache();
    require(!has_sanitizer() || __lsan_do_recoverable_leak_check() == 0);
}

static void expect_daemon_survives(const fault_plan &planned)
{
    SCOPED_TRACE(testing::Message() << planned.call << " " << strerror(planned.error) << " at "
                                    << planned.countdown << ", VRF " << planned.vrf);
    *plan = planned;
    /* Each daemon must create its own groups and load programs. */
    shell("echo of VRF 1 > /etc/netns/vrf1/hostname; rmdir /sys/fs/cgroup/vrf/* 2> /dev/null");
    alone([&] {
        alarm(20);
        freopen("/dev/null", "w", stdout);
        run_daemon(planned.vrf);
    });
}

/* Short transfers, and EINTR of calls that are retried, must not fail a lookup. */
static bool is_retried(const std::string &call, int error)
{
    return error == SHORT || (error == EINTR && (call == "send" || call == "recv" || call == "poll"));
}

/* Returns the number of places at which the call has failed. */
static int sweep(const char *call, int error, int vrf)
{
    fault_plan planned = {.error = error, .vrf = vrf, .countdown = 1};
    snprintf(planned.call, sizeof planned.call, "%s", call);
    for (;; planned.countdown++) {
        expect_daemon_survives(planned);
        EXPECT_TRUE(plan->refusals == 0 || !is_retried(call, error));
        if (!plan->has_failed)
            return planned.countdown - 1;
    }
}

static void sweep_all(const char *call, const std::vector<int> &errors)
{
    for (const int error : errors) {
        int places = 0;
        for (const int vrf : {1, 5, 0})
            if (!has_sanitizer() || places == 0) /* sanitizers are slow */
                places += sweep(call, error, vrf);
        EXPECT_GT(places, 0) << call;
    }
}

TEST(Fault, EachSystemCallMayFailOnce)
{
#define FAULTY(name, failure, ...) sweep_all(#name, {__VA_ARGS__});
#include "tests/e2e/faulty_calls.def"
}
