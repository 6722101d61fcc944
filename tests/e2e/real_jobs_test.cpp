/*
 * The library on the Linux platform layer, with real forks and the scripted resolver in the children: what it changes
 * in the process that it is linked into, how real jobs end, and the debug log in a hostile environment.
 */
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <sstream>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "tests/support/jobs.h"

static uint32_t the_queue;
static bool log_is_switched_on; /* in place of the marker file */

/* One second is the shortest blocking wait there is. A process can register only one queue: call this in a fork. */
static void init()
{
    the_queue = linux_queue_create();
    dns_cache_init(the_queue, 1);
}

static int look_up(const char *name)
{
    struct addrinfo hints = {}, *chain = nullptr;
    const int result = getaddrinfo_async_mq3(name, "123", &hints, 0, &chain);
    EXPECT_EQ(chain != nullptr, result == 0);
    if (chain != nullptr)
        freeaddrinfo(chain);
    return result;
}

static size_t children()
{
    const std::string pids = content_of("/proc/thread-self/children");
    return static_cast<size_t>(std::ranges::count(pids, ' '));
}

/* Waits until at most that many children remain, and the job service has released what it held for the others. */
static bool children_left(size_t most)
{
    return eventually([most] {
        linux_completion none;
        const bool is_reached = children() <= most;
        linux_queue_next(the_queue, &none);
        return is_reached;
    });
}

extern "C" int __real_stat(const char *path, struct stat *status);
extern "C" int __wrap_stat(const char *path, struct stat *status)
{
    if (log_is_switched_on && strcmp(path, "/bootflash/.enable_dns_debugs") == 0)
        return 0;
    return __real_stat(path, status);
}

/* Hygiene: the rows that are measured here must equal those in docs/hygiene.md. */

static void have_a_vrf()
{
    const bool is_root = geteuid() == 0;
    init();
    EXPECT_TRUE(!is_root || (has_own_mounts() && mount("none", "/run", "tmpfs", 0, nullptr) == 0));
    EXPECT_EQ(is_root ? system("mkdir /run/netns && ln -s /proc/self/ns/net /run/netns/vrf5") : 0, 0);
}

static linux_completion completion;
static size_t count;

static const struct row {
    const char *call;
    void (*make)();
    void (*prepare)() = init;
    size_t children_after = 0;
} rows[] = {
    {"getaddrinfo_async_mq3: a miss", [] { look_up("pair.test"); }},
    {"getaddrinfo_async_mq3: -3, while the job runs", [] { look_up("stuck.test"); }, init, 1},
    {"add_entry_to_dns_cache: while the job runs",
     [] { add_entry_to_dns_cache("stuck.test", 123, 0, nullptr); }, init, 1},
    {"any call that traces: the first while the debug log is on", [] { get_sock_in_addr(nullptr); },
     [] { init(), log_is_switched_on = true; }},
    {"linux_queue_create", [] { linux_queue_create(); }},
    {"linux_queue_next: no completion is waiting", [] { linux_queue_next(the_queue, &completion); }},
    {"linux_history_enable", [] { linux_history_enable(1); }},
    {"linux_vrf_list", [] { free(linux_vrf_list(&count)); }, have_a_vrf},
    {"linux_vrf_check", [] { linux_vrf_check(0, nullptr, 0); }},
};

/* How the process handles signals, and its umask */
static std::string signals()
{
    std::string found;
    std::istringstream status(content_of("/proc/self/status"));
    for (std::string line; std::getline(status, line);)
        if (strstr("SigBlk SigIgn SigCgt Umask", line.substr(0, line.find(':')).c_str()) != nullptr)
            found += line + "\n";
    return found;
}

static std::string change(size_t before, size_t after)
{
    const std::string difference = std::to_string(static_cast<long>(after - before));
    return (after == before ? "-" : after > before ? "+" + difference : difference) + " | ";
}

/* Values that are not the defaults show a reset to the default, too. */
static void expect_in_manual(const row &row)
{
    sigset_t blocked;
    struct sigaction sigchld;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    signal(SIGUSR1, [](int) {});
    signal(SIGXFSZ, [](int) {});
    umask(027);
    row.prepare();
    EXPECT_TRUE(children_left(0));
    for (const int fd : open_descriptors())
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    const std::string signals_before = signals();
    const size_t descriptors = open_descriptors().size();
    errno = 4242;
    row.make();
    EXPECT_EQ(errno, 4242);
    EXPECT_TRUE(children_left(row.children_after));
    sigaction(SIGCHLD, nullptr, &sigchld);
    const bool ignores_sigchld = sigchld.sa_handler == SIG_IGN;
    if (ignores_sigchld)
        signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(signals(), signals_before);
    for (const int fd : open_descriptors())
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
    const std::string line =
        std::string("\n| ") + row.call + (ignores_sigchld ? " | SIGCHLD ignored" : " | -") + " | - | - | " +
        change(descriptors, open_descriptors().size()) + change(0, children()) + "- | - | - | - |\n";
    const std::string manual = content_of(HYGIENE);
    EXPECT_NE(manual.find(line), manual.npos) << line;
    remove(file_name); /* of the debug log */
}

TEST(HostProcess, ChangesAreThoseInTheHygieneTable)
{
    for (const row &row : rows)
        alone([&row] { expect_in_manual(row); });
}

/* Outcomes of real jobs */

static void serve(int hits, int misses)
{
    for (int i = 0; i < misses; i++) {
        remove_entry_from_dns_cache("pair.test");
        if (i % 2 == 0) {
            ASSERT_EQ(add_entry_to_dns_cache("pair.test", 123, 0, nullptr), 0);
            while (linux_queue_dispatch(the_queue, dnscache_spawnletcb_job_done, nullptr, nullptr) == 0)
                ASSERT_TRUE(becomes_readable(the_queue));
        }
        ASSERT_EQ(look_up("pair.test"), 0);
    }
    for (int i = 0; i < hits; i++)
        look_up("pair.test");
    EXPECT_TRUE(children_left(0));
}

TEST(RealJobs, LeakNothingInTheHost)
{
    alone([] {
        init();
        freopen("/dev/null", "w", stdout);
        const size_t held = open_descriptors().size();
        serve(1000, 100); /* allocates buffers that remain */
        const size_t memory = mallinfo2().uordblks;
        const char *soak = getenv("SOAK"); /* set by scripts/soak */
        const int times = soak != nullptr ? atoi(soak) : 1;
        serve(times * 20'000, times * 800); /* half of the misses in the background */
        EXPECT_EQ(open_descriptors().size(), held);
        EXPECT_LT(mallinfo2().uordblks, memory + 4096);
    });
}

/* The debug log in a hostile environment, in a /tmp of its own */

static const std::string log_path = "/tmp/dnscache.log.7";

static void enter_own_tmp()
{
    linux_partition_set(7);
    ASSERT_TRUE(has_own_mounts() && mount("none", "/tmp", "tmpfs", 0, nullptr) == 0);
}

static bool traces()
{
    log_is_switched_on = true;
    get_sock_in_addr(nullptr);
    return log_file != nullptr;
}

class Surroundings : public testing::Test
{
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "mounting needs root";
    }
};

TEST_F(Surroundings, LogIsNotOpenedWhereOthersPlantedOrCouldReplaceIt)
{
    const std::pair<std::string, bool> cases[] = {
        {"mount -t tmpfs -o mode=0755 none /tmp", true},
        {"mount -t tmpfs -o mode=0777 none /tmp", false},
        {"mount -t tmpfs -o mode=0775 none /tmp", false},
        {"mount -t tmpfs -o uid=65534 none /tmp", false},
        {"ln -s /tmp/target $log", false},
        {"ln -s /tmp/nowhere $log", false},
        {"ln /tmp/target $log", false},
        {"mkfifo $log", false},
        {"touch $log && chown 65534 $log", false},
    };
    for (const auto &[plant, is_safe] : cases)
        alone([plant = plant, is_safe = is_safe] {
            enter_own_tmp();
            ASSERT_EQ(system(("touch /tmp/target; log=" + log_path + "; " + plant).c_str()), 0);
            alarm(20); /* opening a FIFO waits for a reader */
            EXPECT_EQ(traces(), is_safe) << plant;
            EXPECT_EQ(system("test ! -s /tmp/target -a ! -e /tmp/nowhere"), 0) << plant;
        });
}

TEST_F(Surroundings, LogIsAppendedToAndKeptOffDescriptors0To2)
{
    alone([] {
        enter_own_tmp();
        std::ofstream(log_path) << "first line\n";
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        EXPECT_TRUE(traces() && fileno(log_file) > STDERR_FILENO);
        EXPECT_TRUE(fcntl(STDIN_FILENO, F_GETFD) < 0 && fcntl(STDOUT_FILENO, F_GETFD) < 0);
        EXPECT_EQ(content_of(log_path).find("get_sock_in_addr"), strlen("first line\n"));
    });
}

TEST_F(Surroundings, FileSizeLimitOnlyLosesLogText)
{
    alone([] {
        enter_own_tmp();
        const struct rlimit limit = {200, 200};
        setrlimit(RLIMIT_FSIZE, &limit);
        freopen("/dev/null", "w", stdout);
        for (int i = 0; i < 20; i++)
            traces();
        EXPECT_EQ(content_of(log_path).size(), 200u);
        EXPECT_TRUE(truncate(file_name, 0) == 0 && traces() && !content_of(log_path).empty());
    });
}
