#include "platform/spawnlet.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>

#include "platform/linux/spawnlet_wire.h"
#include "tests/support/jobs.h"

static int hand_back(void *size)
{
    const std::string bytes(*static_cast<size_t *>(size), 'b');
    spawnlet_done(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return -5;
}

static int crash(void *)
{
    return raise(SIGKILL);
}

static int hang(void *)
{
    spawnlet_done("early", 5);
    return pause();
}

static int flood(void *)
{
    for (;;)
        spawnlet_done("again", 5);
}

/* Raw bytes instead of frames, then a normal result. */
static int garble(void *bytes)
{
    const std::string &text = *static_cast<std::string *>(bytes);
    return static_cast<int>(write(job_channel(), text.data(), text.size()));
}

TEST(Spawnlet, BringsBackBufferAndResult)
{
    for (size_t size :
         {size_t{0}, size_t{1}, size_t{1675}, size_t{1676}, size_t{1677}, size_t{LINUX_HANDBACK_MAX}}) {
        const job_report report = run_job(hand_back, &size);
        EXPECT_EQ(report.code, 0u) << size;
        EXPECT_EQ(report.result, -5);
        EXPECT_EQ(report.buffer, std::string(size, 'b'));
    }
    const job_report twice =
        run_job([](void *) { return spawnlet_done("first", 5) + spawnlet_done("last", 4); });
    EXPECT_EQ(twice.buffer, "last");
}

TEST(Spawnlet, EveryWayToFailHasItsCode)
{
    size_t too_large = LINUX_HANDBACK_MAX + 1;
    const uint32_t announced[] = {FRAME_HANDBACK, 100, 7};
    const uint32_t torn_result[] = {FRAME_RESULT, 3, 7};
    std::string garbage(100, '\xff'), torn(reinterpret_cast<const char *>(torn_result), sizeof torn_result),
        unfinished(reinterpret_cast<const char *>(announced), sizeof announced);
    const struct {
        spawnlet_body_t body;
        void *arg;
        uint32_t code;
        const char *text;
    } cases[] = {
        {crash, nullptr, LINUX_JOB_NO_RESULT, "child ended without a result"},
        {[](void *) -> int { _exit(0); }, nullptr, LINUX_JOB_NO_RESULT, "child ended without a result"},
        {garble, &garbage, LINUX_JOB_NO_RESULT, "child ended without a result"},
        {garble, &torn, LINUX_JOB_NO_RESULT, "child ended without a result"},
        {garble, &unfinished, LINUX_JOB_NO_RESULT, "child ended without a result"},
        {hand_back, &too_large, LINUX_JOB_TOO_LARGE, "hand-back too large"},
        {hang, nullptr, LINUX_JOB_TIMED_OUT, "job timed out"},
        {flood, nullptr, LINUX_JOB_TIMED_OUT, "job timed out"},
    };
    for (const auto &c : cases) {
        const bool ends_by_time = c.code == LINUX_JOB_TIMED_OUT;
        const job_report report = run_job(c.body, c.arg, ends_by_time ? 1 : 20);
        EXPECT_EQ(report.code, c.code);
        EXPECT_STREQ(errcode2str(report.code), c.text);
        EXPECT_EQ(report.result, 0);
        EXPECT_EQ(report.buffer, "");
    }
    EXPECT_STREQ(errcode2str(12345), "unknown code");
}

TEST(Spawnlet, RefusesBadArguments)
{
    void *buffer;
    uint32_t size, handle;
    int32_t result;
    job_options good = options_for(1), negative = options_for(-1), resized = options_for(1);
    resized.record_size = 40;
    const auto body = [](void *) { return 0; };
    for (const job_options *options :
         {(const job_options *)nullptr, (const job_options *)&negative, (const job_options *)&resized})
        EXPECT_EQ(
            spawnlet_fork_fp(body, nullptr, &buffer, &size, &result, options, nullptr, nullptr, nullptr),
            LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_fork_fp(nullptr, nullptr, &buffer, &size, &result, &good, nullptr, nullptr, nullptr),
              LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_fork_fp_async(body, nullptr, 1, &good, nullptr, nullptr, nullptr, nullptr),
              LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_done("x", 1), -1); /* not in a child */
    const job_report nested = run_job([](void *) { return static_cast<int>(run_job(crash).code); });
    EXPECT_EQ(nested.result, LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_fork_fp_async(body, nullptr, 1, &good, nullptr, nullptr, nullptr, &handle), 0u);
}

TEST(Spawnlet, SystemLimitsAreRefusalsThatLeaveNothingBehind)
{
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const struct rlimit few = {50, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> sockets;
    for (int fd = socket(AF_UNIX, SOCK_STREAM, 0); fd >= 0; fd = dup(fd))
        sockets.push_back(fd);
    for (int spare = 0; spare <= 2; spare++) {
        EXPECT_EQ(run_job([](void *) { return 0; }).code, spare < 2 ? uint32_t{LINUX_JOB_NO_RESOURCES} : 0)
            << spare;
        close(sockets.back());
        sockets.pop_back();
    }
    for (const int fd : sockets)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t before = open_descriptors().size();
    EXPECT_TRUE(eventually([before] {
        run_job([](void *) { return 0; });
        return open_descriptors().size() <= before; /* one pidfd, as before */
    }));
    const pid_t limited = fork(); /* privilege is above the limit, so it goes first */
    if (limited == 0) {
        const struct rlimit none = {0, 0};
        if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)
            _exit(2);
        setrlimit(RLIMIT_NPROC, &none);
        _exit(run_job([](void *) { return 0; }).code == LINUX_JOB_FORK_REFUSED ? 0 : 1);
    }
    int status;
    ASSERT_EQ(waitpid(limited, &status, 0), limited);
    EXPECT_EQ(status, 0);
}

TEST(Spawnlet, EndOfTheChildDecidesWhenAGrandchildHoldsTheChannel)
{
    pid_t *grandchild = shared<pid_t>();
    const job_report report = run_job(
        [](void *pid) {
            const pid_t forked = fork();
            if (forked == 0)
                pause();
            *static_cast<pid_t *>(pid) = forked;
            return raise(SIGKILL);
        },
        grandchild);
    EXPECT_EQ(report.code, LINUX_JOB_NO_RESULT);
    ASSERT_GT(*grandchild, 0);
    kill(*grandchild, SIGKILL);
}

/* What the child finds, as bits; 0 is right. */
static int inspect(void *parent)
{
    int wrong = 0;
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int number = 1; number < 32; number++) {
        struct sigaction action;
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL)
            wrong |= 1;
        if (sigismember(&mask, number) != 0)
            wrong |= 2;
    }
    int sockets = 0, regular = 0;
    for (const int fd : open_descriptors()) {
        struct stat status;
        fstat(fd, &status);
        sockets += S_ISSOCK(status.st_mode) != 0;
        regular += S_ISREG(status.st_mode) != 0 && fd > 2;
        if (fd > 2 && !S_ISSOCK(status.st_mode) && !S_ISREG(status.st_mode))
            wrong |= 4;
        if (fd > 2 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0 && S_ISSOCK(status.st_mode))
            wrong |= 8;
    }
    if (sockets != 1)
        wrong |= 16;
    if (regular == 0)
        wrong |= 32; /* the debug log would be gone */
    struct stat null_device, stream;
    stat("/dev/null", &null_device);
    for (int fd = 0; fd < 3; fd++)
        if (fstat(fd, &stream) != 0 || stream.st_rdev != null_device.st_rdev)
            wrong |= 64;
    if (getppid() != *static_cast<pid_t *>(parent))
        wrong |= 128;
    return wrong;
}

TEST(Spawnlet, ChildShedsWhatIsTheHosts)
{
    int pair[2], pipes[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(pipe(pipes), 0);
    const int regular = open("/proc/self/exe", O_RDONLY), events = epoll_create1(0),
              timer = timerfd_create(CLOCK_MONOTONIC, 0);
    ASSERT_TRUE(regular >= 0 && events >= 0 && timer >= 0);
    signal(SIGUSR1, [](int) {});
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    pid_t parent = getpid();
    const job_report report = run_job(inspect, &parent);
    EXPECT_EQ(report.code, 0u);
    EXPECT_EQ(report.result, 0);
    /* The host's own are as before. */
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
    EXPECT_EQ(sigismember(&mask, SIGINT), 0);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    for (const int fd : {pair[0], pair[1], pipes[0], pipes[1], events, timer})
        EXPECT_EQ(close(fd), 0);
}

TEST(Spawnlet, TextComesOutOnceAndOfBothProcesses)
{
    char path[] = "/tmp/spawnlet_test.XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE *out = fdopen(fd, "a");
    fputs("parent ", out);
    const job_report report = run_job(
        [](void *stream) {
            fputs("stream ", static_cast<FILE *>(stream));
            fputs("stdout ", stdout);
            fputs("stderr ", stderr);
            return 0;
        },
        out, 20, nullptr, out, out);
    EXPECT_EQ(report.code, 0u);
    fflush(out);
    std::string text;
    EXPECT_TRUE(eventually([&text, &path] { /* the child flushes after its result */
                                            char bytes[100] = "";
                                            FILE *in = fopen(path, "r");
                                            text.assign(bytes, fread(bytes, 1, sizeof bytes, in));
                                            fclose(in);
                                            return text.size() >= 28;
    }));
    for (const char *word : {"parent ", "stream ", "stdout ", "stderr "}) {
        EXPECT_NE(text.find(word), std::string::npos) << text;
        EXPECT_EQ(text.find(word), text.rfind(word)) << text;
    }
    fclose(out);
    unlink(path);
}

TEST(Spawnlet, StreamsMayHaveAnyDescriptors)
{
    /* In a process of its own, without standard streams: the job's pipe and streams land on 0 to 2. */
    const pid_t bare = fork();
    if (bare == 0) {
        for (int fd = 0; fd < 3; fd++)
            close(fd);
        FILE *zero = tmpfile(); /* takes descriptor 0 */
        const job_report plain = run_job([](void *) { return write(1, "x", 1) == 1 ? 7 : 8; });
        const job_report swapped = run_job(
            [](void *) {
                struct stat out, null_device;
                stat("/dev/null", &null_device);
                return fstat(1, &out) == 0 && S_ISREG(out.st_mode) && fstat(0, &out) == 0 &&
                               out.st_rdev == null_device.st_rdev
                           ? 7
                           : 8;
            },
            nullptr, 20, nullptr, zero, nullptr);
        _exit(plain.code == 0 && plain.result == 7 && swapped.code == 0 && swapped.result == 7 ? 0 : 1);
    }
    int status;
    ASSERT_EQ(waitpid(bare, &status, 0), bare);
    EXPECT_EQ(status, 0);
}

TEST(Spawnlet, ChildDiesWithItsParent)
{
    pid_t *child = shared<pid_t>();
    const pid_t parent = fork();
    if (parent == 0)
        run_job(
            [](void *pid) {
                *static_cast<pid_t *>(pid) = getpid();
                return pause();
            },
            child);
    ASSERT_TRUE(eventually([child] { return *child != 0; }));
    const long pidfd = syscall(SYS_pidfd_open, *child, 0);
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    EXPECT_TRUE(becomes_readable(static_cast<uint32_t>(pidfd)));
}

TEST(Spawnlet, WorksWhateverBecomesOfSigchldAndLeavesNoZombie)
{
    const auto collect_all = [](int) {
        const int error = errno;
        while (waitpid(-1, nullptr, WNOHANG) > 0)
            ;
        errno = error;
    };
    for (const sighandler_t disposition : {SIG_DFL, SIG_IGN, static_cast<sighandler_t>(collect_all)}) {
        signal(SIGCHLD, disposition);
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(run_job([](void *i_arg) { return *static_cast<int *>(i_arg); }, &i).result, i);
            EXPECT_EQ(run_job(crash).code, LINUX_JOB_NO_RESULT);
        }
        EXPECT_TRUE(eventually([] {
            run_job(crash); /* reaps those before it */
            siginfo_t info = {};
            return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 ? info.si_pid == 0
                                                                             : errno == ECHILD;
        }));
    }
}
