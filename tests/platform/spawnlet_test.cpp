#include "platform/spawnlet.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/timerfd.h>

#include <array>
#include <map>

#include "tests/support/jobs.h"

TEST(Spawnlet, ReportsResultOrErrorOfTheChild)
{
    for (const job_way &way : job_ways()) {
        const job_report report = run_job(way.body, way.arg, way.code == LINUX_JOB_TIMED_OUT ? 1 : 20);
        EXPECT_EQ(report.code, way.code);
        EXPECT_EQ(report.result, way.result);
        EXPECT_EQ(report.buffer.size(), way.size);
    }
    const char *texts[] = {"job timed out",       "child ended without a result",
                           "fork refused",        "out of descriptors or memory",
                           "hand-back too large", "bad argument",
                           "unknown code"};
    for (uint32_t i = 0; i < std::size(texts); i++)
        EXPECT_STREQ(errcode2str(LINUX_JOB_TIMED_OUT + i), texts[i]);
}

TEST(Spawnlet, RefusesBadArguments)
{
    void *buffer;
    uint32_t size;
    int32_t result;
    job_options good = options_for(1), negative = options_for(-1), resized = options_for(1);
    resized.record_size = 40;
    const struct {
        spawnlet_body_t body;
        const job_options *options;
    } cases[] = {{nullptr, &good}, {nothing, nullptr}, {nothing, &negative}, {nothing, &resized}};
    for (const auto &c : cases)
        EXPECT_EQ(
            spawnlet_fork_fp(c.body, nullptr, &buffer, &size, &result, c.options, nullptr, nullptr, nullptr),
            LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_fork_fp_async(nothing, nullptr, 1, &good, nullptr, nullptr, nullptr, nullptr),
              LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_done("x", 1), -1); /* not in a child */
    EXPECT_EQ(run_job([](void *) { return static_cast<int>(run_job(crash).code); }).result,
              LINUX_JOB_BAD_ARGUMENT);
}

TEST(Spawnlet, ChildAlarmFollowsTheTimeout)
{
    const auto time_left = [](void *) { return static_cast<int>(alarm(0)); };
    for (const auto &[asked, given] : {std::pair{0, 301}, {7, 8}, {INT32_MAX, 301}})
        EXPECT_NEAR(run_job(time_left, nullptr, asked).result, given, 1);
}

TEST(Spawnlet, ReportsProcessLimitAsForkRefused)
{
    EXPECT_TRUE(in_its_own_process([] {
        const struct rlimit none = {0, 0};
        return (geteuid() != 0 || setresuid(65534, 65534, 65534) == 0) &&
               setrlimit(RLIMIT_NPROC, &none) == 0 && run_job(nothing).code == LINUX_JOB_FORK_REFUSED;
    }));
}

/* Hands back what is wrong with the process that the body runs in. */
static int inspect(void *parent)
{
    std::string wrong;
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    struct sigaction action = {};
    for (int number = 1; number < 32; number++)
        if (sigismember(&mask, number) != 0 || sigaction(number, nullptr, &action) != 0 ||
            action.sa_handler != (number == SIGPIPE || number == SIGXFSZ ? SIG_IGN : SIG_DFL))
            wrong += "signal " + std::to_string(number) + "; ";
    if (getppid() != *static_cast<pid_t *>(parent))
        wrong += "parent; ";
    struct stat null_device, found;
    stat("/dev/null", &null_device);
    std::map<mode_t, int> kinds;
    for (const int fd : open_descriptors()) {
        fstat(fd, &found);
        if (fd > 2)
            kinds[found.st_mode & S_IFMT]++;
        else if (found.st_rdev != null_device.st_rdev)
            wrong += "stream; ";
    }
    /* Only its channel and regular files stay open: one of the files may be the debug log. */
    if (kinds[S_IFSOCK] != 1 || kinds[S_IFREG] < 1 || kinds.size() != 2)
        wrong += "descriptors; ";
    spawnlet_done(wrong.data(), static_cast<uint32_t>(wrong.size()));
    return 0;
}

TEST(Spawnlet, ChildResetsSignalsAndClosesDescriptors)
{
    close_range(60, ~0U, 0); /* an inherited high descriptor would select another code path */
    int pair[2], pipes[2];
    ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0 && pipe(pipes) == 0);
    const int regular = open("/proc/self/exe", O_RDONLY), name_space = open("/proc/self/ns/net", O_RDONLY);
    const int events = epoll_create1(0), timer = timerfd_create(CLOCK_MONOTONIC, 0);
    const int path = open("/", O_PATH);
    signal(SIGUSR1, [](int) {});
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked, mask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    pid_t parent = getpid();
    const job_report report = run_job(inspect, &parent);
    EXPECT_EQ(report.code, 0u);
    EXPECT_EQ(report.buffer, "");
    /* The host's own are unchanged. */
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_TRUE(sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGINT) == 0);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    for (const int fd : {pair[0], pair[1], pipes[0], pipes[1], regular, name_space, events, timer, path})
        EXPECT_EQ(close(fd), 0);
}

TEST(Spawnlet, ChildClosesManyAndHighDescriptors)
{
    static constexpr struct {
        int first, last;
    } rows[] = {{40, 40}, {63, 63}, {64, 64}, {65, 65}, {127, 127}, {128, 128}, {1023, 1025}, {30, 1100}};
    for (const auto &row : rows)
        EXPECT_TRUE(in_its_own_process([row] {
            close_range(STDERR_FILENO + 1, ~0U, 0);
            const struct rlimit enough = {4096, 4096};
            int pipes[2];
            const int regular = open("/proc/self/exe", O_RDONLY);
            pid_t parent = getpid();
            if (setrlimit(RLIMIT_NOFILE, &enough) != 0 || regular < 0 || pipe(pipes) != 0)
                return false;
            for (int fd = row.first; fd <= row.last; fd++)
                if (dup2(pipes[0], fd) != fd)
                    return false;
            const job_report report = run_job(inspect, &parent);
            return report.code == 0 && report.buffer.empty();
        })) << row.first
            << " to " << row.last;
}

/* Some files report an event only once, to the first process that polls. */
TEST(Spawnlet, ChildConsumesNoEventOfTheHost)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting needs root";
    EXPECT_TRUE(in_its_own_process([] {
        struct pollfd mounts = {.fd = -1, .events = POLLPRI, .revents = 0};
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            close_range(STDERR_FILENO + 1, ~0U, 0) != 0 ||
            (mounts.fd = open("/proc/self/mounts", O_RDONLY)) < 0 ||
            mount("none", "/tmp", "tmpfs", 0, nullptr) != 0)
            return false;
        return run_job(nothing).code == 0 && poll(&mounts, 1, 0) == 1;
    }));
}

/* Writes to a pipe through all three output streams. */
static int write_text(void *out)
{
    fputs("stream ", static_cast<FILE *>(out));
    fputs("stdout ", stdout);
    fputs("stderr ", stderr);
    return 0;
}

TEST(Spawnlet, OutputIsWrittenOnceBeforeTheResult)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0); /* read() below must not wait for late text */
    FILE *out = fdopen(ends[1], "w");
    for (int i = 0; i < 30; i++) {
        EXPECT_TRUE(in_its_own_process([out] {
            fputs("parent ", out);
            const bool right = run_job(write_text, out, 20, nullptr, out, out).code == 0;
            return fflush(out) == 0 && right;
        }));
        char text[100] = "";
        EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
        EXPECT_EQ(strlen(text), strlen("parent stream stdout stderr ")) << text;
        for (const char *word : {"parent ", "stream ", "stdout ", "stderr "})
            EXPECT_NE(strstr(text, word), nullptr) << text;
    }
}

TEST(Spawnlet, FullOrClosedOutputPipeDoesNotBlockJobs)
{
    const size_t before = open_descriptors().size() + 2;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "full", 4) > 0)
        ;
    fcntl(ends[1], F_SETFL, 0);
    FILE *out = fdopen(ends[1], "w");
    const auto write_buffered = [](void *) { return fputs("stdout", stdout) < 0 ? 1 : 0; };
    for (int i = 0; i <= LINUX_JOBS_MAX; i++) /* the last job needs the slot of a child that has exited */
        EXPECT_EQ(run_job(write_buffered, nullptr, 20, nullptr, out, out).code, 0u);
    EXPECT_TRUE(leaves_nothing_behind(before));
    close(ends[0]); /* a closed pipe does not block jobs either */
    EXPECT_EQ(run_job(write_buffered, nullptr, 20, nullptr, out, out).code, 0u);
}

/* Without standard streams in the host, new descriptors are 0 to 2 unless the code moves them. */
static bool works_without_streams()
{
    for (int fd = 0; fd < 3; fd++)
        close(fd);
    const uint32_t queue = linux_queue_create();
    bool right = spawnlet_register_async_q(queue) == 0;
    start_job(hang);
    for (int fd = 0; fd < 3; fd++)
        right = right && fcntl(fd, F_GETFD) < 0;
    FILE *zero = tmpfile(); /* the job's output, on descriptor 0 */
    const auto find_streams = [](void *) {
        struct stat in, out;
        return fstat(0, &in) == 0 && S_ISCHR(in.st_mode) && fstat(1, &out) == 0 && S_ISREG(out.st_mode) ? 7
                                                                                                        : 8;
    };
    return right && run_job(find_streams, nullptr, 20, nullptr, zero, nullptr).result == 7;
}

/* Hands back the host's file behind each standard stream, by its letter below; ! if it is close-on-exec. */
static int name_streams(void *host_files)
{
    const struct stat *files = static_cast<const struct stat *>(host_files);
    std::string names;
    for (int fd = 0; fd < 3; fd++) {
        struct stat found = {};
        fstat(fd, &found);
        char name = '-';
        for (int i = 0; i < 4; i++)
            if (found.st_dev == files[i].st_dev && found.st_ino == files[i].st_ino)
                name = "012h"[i];
        names += (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? '!' : name;
    }
    spawnlet_done(names.data(), static_cast<uint32_t>(names.size()));
    return 0;
}

/* Streams given to a job, and those closed in the host: 0 to 2, h for a higher descriptor, - for none. */
TEST(Spawnlet, ChildGetsTheGivenStreams)
{
    static constexpr struct {
        const char *given, *closed, *expected;
    } rows[] = {{"012", "", "012"},  {"---", "", "---"},   {"0--", "", "0--"},    {"021", "", "021"},
                {"210", "", "210"},  {"120", "", "120"},   {"111", "", "111"},    {"hhh", "", "hhh"},
                {"h1h", "", "h1h"},  {"1h0", "", "1h0"},   {"012", "0", "-12"},   {"012", "12", "0--"},
                {"0hh", "0", "-hh"}, {"h-1", "02", "h-1"}, {"---", "012", "---"}, {"hhh", "012", "hhh"},
                {"12-", "0", "12-"}};
    for (const auto &row : rows)
        EXPECT_TRUE(in_its_own_process([row] {
            FILE *streams[4];
            struct stat files[4];
            for (int i = 0; i < 4; i++) {
                FILE *made = tmpfile();
                const int fd = i < 3 ? i : 90;
                if (dup3(fileno(made), fd, O_CLOEXEC) != fd || fstat(fd, &files[i]) != 0)
                    return false;
                streams[i] =
                    i < 3 ? std::array{stdin, stdout, stderr}[static_cast<size_t>(i)] : fdopen(fd, "r+");
            }
            for (const char *closed = row.closed; *closed != '\0'; closed++)
                close(*closed - '0');
            const auto given = [&](int i) {
                return row.given[i] == '-' ? nullptr : streams[row.given[i] == 'h' ? 3 : row.given[i] - '0'];
            };
            return run_job(name_streams, files, 20, given(0), given(1), given(2)).buffer == row.expected;
        })) << row.given
            << " without " << row.closed;
}

TEST(Spawnlet, WorksWithoutStandardStreams)
{
    EXPECT_TRUE(in_its_own_process(works_without_streams));
}
