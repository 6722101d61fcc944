#include "platform/spawnlet.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <time.h>

#include <map>

#include "tests/support/jobs.h"

static uint32_t new_queue()
{
    const uint32_t queue = linux_queue_create();
    EXPECT_EQ(spawnlet_register_async_q(queue), 0u);
    return queue;
}

static uint32_t start_code(uint32_t *handle)
{
    const job_options options = options_for(20);
    return spawnlet_fork_fp_async(nothing, nullptr, 1, &options, nullptr, nullptr, nullptr, handle);
}

static constexpr clock_t SPIN = CLOCKS_PER_SEC / 10; /* processor time that no waiting takes */

/* Each job is run twice, blocking and in the background, while a fork of the host shares its descriptors. */
TEST(Spawnlet, ReportsResultOrErrorOfTheChild)
{
    alone([] {
        const uint32_t queue = new_queue();
        const pid_t copy = fork();
        if (copy == 0)
            _exit(pause());
        for (const job_way &way : job_ways()) {
            const int32_t seconds = way.code == LINUX_JOB_TIMED_OUT ? 1 : 20;
            const clock_t used = clock();
            const uint32_t handle = start_job(way.body, way.arg, seconds);
            const job_report report = run_job(way.body, way.arg, seconds);
            EXPECT_EQ(report.code, way.code);
            EXPECT_EQ(report.result, way.result);
            EXPECT_EQ(report.buffer.size(), way.size);
            const linux_completion done = next_completion(queue);
            EXPECT_TRUE(done.handle == handle && done.syserr == way.code && done.ret_syserr == way.result);
            EXPECT_EQ(done.ret_info_size, way.size);
            EXPECT_FALSE(becomes_readable(queue, 0));
            EXPECT_TRUE(way.code != LINUX_JOB_TIMED_OUT || clock() - used < SPIN);
        }
        kill(copy, SIGKILL);
    });
}

TEST(Spawnlet, RefusesBadArgumentsAndProcessesBeyondTheLimit)
{
    alone([] {
        uint32_t handle;
        linux_completion done;
        job_options resized = options_for(1);
        resized.record_size = 40;
        EXPECT_EQ(run_job(nullptr).code, LINUX_JOB_BAD_ARGUMENT);
        EXPECT_EQ(run_job(nothing, nullptr, -1).code, LINUX_JOB_BAD_ARGUMENT);
        for (const job_options *options :
             {static_cast<const job_options *>(nullptr), &std::as_const(resized)})
            EXPECT_EQ(
                spawnlet_fork_fp_async(nothing, nullptr, 1, options, nullptr, nullptr, nullptr, &handle),
                LINUX_JOB_BAD_ARGUMENT);
        EXPECT_EQ(start_code(nullptr), LINUX_JOB_BAD_ARGUMENT);
        EXPECT_EQ(spawnlet_done("x", 1), -1); /* not in a child */
        EXPECT_EQ(run_job([](void *) { return static_cast<int>(run_job(crash).code); }).result,
                  LINUX_JOB_BAD_ARGUMENT);
        EXPECT_EQ(linux_queue_next(~0U, &done), -1); /* no queue is registered */
        for (const uint32_t queue : {0U, 4000U, ~0U})
            EXPECT_EQ(spawnlet_register_async_q(queue), LINUX_JOB_BAD_ARGUMENT);
        const uint32_t first = new_queue(), second = linux_queue_create();
        EXPECT_EQ(spawnlet_register_async_q(second), LINUX_JOB_BAD_ARGUMENT);
        EXPECT_TRUE(linux_queue_dispatch(second, nullptr, nullptr, nullptr) == -1 && errno == EINVAL);
        EXPECT_EQ(linux_queue_next(first, &done), 0);
        const struct rlimit none = {0, 0};
        EXPECT_TRUE(geteuid() != 0 || setresuid(65534, 65534, 65534) == 0);
        EXPECT_TRUE(setrlimit(RLIMIT_NPROC, &none) == 0 && run_job(nothing).code == LINUX_JOB_FORK_REFUSED);
    });
}

TEST(Spawnlet, ChildAlarmFollowsTheTimeout)
{
    const auto time_left = [](void *) { return static_cast<int>(alarm(0)); };
    for (const auto &[asked, given] : {std::pair{0, 301}, {7, 8}, {INT32_MAX, 301}})
        EXPECT_NEAR(run_job(time_left, nullptr, asked).result, given, 1);
}

/* Returns 0 if, besides the standard streams, only its channel and one regular file are open. */
static int check_descriptors(void *)
{
    struct stat found;
    std::map<mode_t, int> kinds;
    for (const int fd : open_descriptors())
        if (fd > 2 && fstat(fd, &found) == 0)
            kinds[found.st_mode & S_IFMT]++;
    return kinds == std::map<mode_t, int>{{S_IFREG, 1}, {S_IFSOCK, 1}} ? 0 : 1;
}

/* From first on, the host has pipes behind a file that reports an event only to the first process that polls it. */
static void expect_closed(int first, int last)
{
    SCOPED_TRACE(testing::Message() << first << " to " << last);
    const struct rlimit enough = {4096, 4096};
    struct pollfd mounts = {.fd = first, .events = POLLPRI, .revents = 0};
    int pipes[2], pair[2];
    close_range(STDERR_FILENO + 1, ~0U, 0);
    ASSERT_TRUE(has_own_mounts() && setrlimit(RLIMIT_NOFILE, &enough) == 0);
    ASSERT_EQ(dup2(open("/proc/self/mounts", O_RDONLY), first), first);
    ASSERT_TRUE(pipe(pipes) == 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
    ASSERT_TRUE(epoll_create1(0) > 0 && open("/proc/self/ns/net", O_RDONLY) > 0 && open("/", O_PATH) > 0);
    if (first != 3)
        close(3);
    for (int fd = first + 1; fd <= last; fd++)
        ASSERT_TRUE(fcntl(fd, F_GETFD) >= 0 || dup2(pipes[0], fd) == fd);
    ASSERT_EQ(mount("none", "/tmp", "tmpfs", 0, nullptr), 0);
    const job_report report = run_job(check_descriptors);
    EXPECT_TRUE(report.code == 0 && report.result == 0);
    EXPECT_EQ(poll(&mounts, 1, 0), 1);
}

TEST(Spawnlet, ChildClosesDescriptorsAndConsumesNoEventOfTheHost)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting needs root";
    static constexpr std::pair<int, int> rows[] = {{3, 40},    {62, 63},   {63, 64},     {64, 65},
                                                   {126, 127}, {127, 128}, {1022, 1025}, {30, 1100}};
    for (const auto &[first, last] : rows)
        alone([first = first, last = last] { expect_closed(first, last); });
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
    alone([] {
        for (int i = 0; i < 30; i++) {
            int ends[2];
            ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0); /* read() must not wait for late text */
            FILE *out = fdopen(ends[1], "w");
            fputs("parent ", out);
            fputs("parent ", stdout);
            char text[100] = "";
            run_job(write_text, out, 20, nullptr, out, out);
            EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
            EXPECT_STREQ(text, "stderr stdout stream "); /* stderr is not buffered */
        }
    });
}

TEST(Spawnlet, FullOrClosedOutputPipeDoesNotBlockJobs)
{
    alone([] {
        const size_t before = open_descriptors().size() + 2;
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
        while (write(ends[1], "full", 4) > 0)
            ;
        fcntl(ends[1], F_SETFL, 0);
        FILE *out = fdopen(ends[1], "w");
        const auto write_buffered = [](void *handler) {
            signal(SIGALRM, reinterpret_cast<sighandler_t>(handler));
            return fputs("stdout", stdout) < 0 ? 1 : 0;
        };
        const auto run = [&](sighandler_t handler) {
            return run_job(write_buffered, reinterpret_cast<void *>(handler), 0, nullptr, out, out).code;
        };
        EXPECT_EQ(run(SIG_DFL), 0u);
        /* A child that cannot write is ended by its alarm, long before its timeout of 300 s. */
        siginfo_t exited = {};
        EXPECT_TRUE(eventually([&] {
            return waitid(P_ALL, 0, &exited, WEXITED | WNOHANG | WNOWAIT) == 0 && exited.si_pid != 0;
        }));
        EXPECT_EQ(exited.si_status, SIGALRM);
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            EXPECT_EQ(run(SIG_IGN), 0u);
        const clock_t used = clock();
        EXPECT_EQ(run(SIG_IGN), 0u); /* needs the slot of a child, which the host must kill */
        EXPECT_LT(clock() - used, SPIN);
        EXPECT_TRUE(leaves_nothing_behind(before));
        close(ends[0]); /* a closed pipe neither blocks jobs nor kills them */
        EXPECT_EQ(run(SIG_DFL), 0u);
    });
}

/* Hands back the host's file behind each standard stream, by its letter below; ! if it is close-on-exec. */
static int name_streams(void *host_files)
{
    const struct stat *files = static_cast<const struct stat *>(host_files);
    std::string names;
    for (int fd = 0; fd < 3; fd++) {
        struct stat found = {};
        fstat(fd, &found);
        char name = S_ISCHR(found.st_mode) ? '-' : '?';
        for (int i = 0; i < 4; i++)
            if (found.st_dev == files[i].st_dev && found.st_ino == files[i].st_ino)
                name = "012h"[i];
        names += (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? '!' : name;
    }
    spawnlet_done(names.data(), static_cast<uint32_t>(names.size()));
    return 0;
}

/*
 * Streams given to a job, and those closed in the host: 0 to 2, h for a higher descriptor, - for none. New descriptors
 * of the host must not become its standard streams.
 */
TEST(Spawnlet, ChildGetsTheGivenStreams)
{
    static constexpr struct row {
        const char *given, *closed, *expected;
    } rows[] = {{"012", "", "012"},  {"120", "", "120"},    {"h1h", "", "h1h"},
                {"012", "0", "-12"}, {"h-1", "02", "h-1"},  {"12-", "0", "12-"},
                {"hhh", "", "hhh"},  {"---", "012", "---"}, {"hhh", "012", "hhh"}};
    for (const row &row : rows)
        alone([row] {
            SCOPED_TRACE(std::string(row.given) + " without " + row.closed);
            FILE *const streams[] = {stdin, stdout, stderr, tmpfile()};
            struct stat files[4];
            for (int i = 0; i < 4; i++) {
                ASSERT_GE(dup3(fileno(tmpfile()), fileno(streams[i]), O_CLOEXEC), 0);
                ASSERT_EQ(fstat(fileno(streams[i]), &files[i]), 0);
            }
            const std::string closed = row.closed;
            for (const char fd : closed)
                close(fd - '0');
            new_queue();
            start_job(hang);
            for (const char fd : closed)
                EXPECT_LT(fcntl(fd - '0', F_GETFD), 0);
            const auto given = [&](int i) {
                return row.given[i] == '-' ? nullptr : streams[row.given[i] == 'h' ? 3 : row.given[i] - '0'];
            };
            EXPECT_EQ(run_job(name_streams, files, 20, given(0), given(1), given(2)).buffer, row.expected);
        });
}

TEST(SpawnletQueue, DeliversCompletionsInTurn)
{
    alone([] {
        static const uint32_t queue = new_queue();
        const auto start = [] {
            return start_job([](void *) { return spawnlet_done("1", 1) + spawnlet_done("", 0); });
        };
        /* The channel and the pidfd of each job are readable. */
        const auto two_have_exited = [] {
            struct epoll_event events[8];
            return epoll_wait(static_cast<int>(queue), events, 8, 0) == 4;
        };
        const uint32_t first = start(), second = start();
        EXPECT_TRUE(eventually(two_have_exited));
        EXPECT_EQ(next_completion(queue).handle, first);
        start(); /* in the slot of the first: it must not overtake the second */
        EXPECT_TRUE(eventually(two_have_exited));
        const linux_completion done = next_completion(queue);
        EXPECT_TRUE(done.handle == second && done.ret_info_size == 0); /* the last hand-back is empty */
    });
}

TEST(SpawnletQueue, LimitsAndCountsJobs)
{
    alone([] {
        linux_job_counters before, after;
        const uint32_t queue = new_queue();
        linux_jobs_started(&before);
        run_job(nothing);
        uint32_t last = 0, handle = 99;
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            last =
                start_job([](void *) { return pause(); }, nullptr, 1); /* only the deadline wakes the queue */
        EXPECT_EQ(start_code(&handle), LINUX_JOB_NO_RESOURCES);
        linux_jobs_started(&after);
        EXPECT_TRUE(after.background == before.background + LINUX_JOBS_MAX && handle == 99);
        EXPECT_TRUE(after.blocking == before.blocking + 1 && after.last_handle == last);
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            EXPECT_EQ(next_completion(queue).syserr, LINUX_JOB_TIMED_OUT);
        EXPECT_TRUE(
            eventually([] { return run_job(crash).code == LINUX_JOB_NO_RESULT; })); /* a slot is free */
    });
}

extern "C" ssize_t __real_send(int channel, const void *bytes, size_t size, int flags);
static bool send_fails;

extern "C" ssize_t __wrap_send(int channel, const void *bytes, size_t size, int flags)
{
    if (send_fails)
        errno = ENOBUFS;
    return send_fails ? -1 : __real_send(channel, bytes, size, flags);
}

TEST(SpawnletQueue, IsReadableOnlyWhileACompletionWaits)
{
    alone([] {
        const job_way &largest = job_ways()[2];
        linux_completion done = {};
        siginfo_t exited;
        uint32_t handle;
        const uint32_t queue = new_queue();
        EXPECT_EQ(linux_queue_next(queue, &done), 0); /* closes what earlier jobs have left */
        const size_t before = open_descriptors().size();
        send_fails = true;
        EXPECT_EQ(start_code(&handle), LINUX_JOB_NO_RESOURCES);
        waitid(P_ALL, 0, &exited, WEXITED | WNOWAIT);
        EXPECT_FALSE(becomes_readable(queue, 0));
        EXPECT_EQ(open_descriptors().size(), before + 1); /* the child's pidfd, until the child is reaped */
        send_fails = false;
        EXPECT_EQ(linux_queue_next(queue, &done), 0);
        start_job(largest.body, largest.arg, 1);
        waitid(P_ALL, 0, &exited, WEXITED | WNOWAIT);
        poll(nullptr, 0, 1000); /* until the deadline has passed: the result came before it */
        EXPECT_TRUE(linux_queue_next(queue, &done) == 1 && done.ret_info_size == largest.size);
        EXPECT_FALSE(becomes_readable(queue, 0)); /* its child is not reaped yet either */
    });
}
