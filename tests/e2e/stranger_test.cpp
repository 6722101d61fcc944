/*
 * Jobs whose process ids are soon reused by strangers, which belong to no job. The laboratory has its own pid
 * namespace, where this test makes ids wrap around all the time, as with a small pid_max.
 */
#include <fcntl.h>
#include <sys/prctl.h>

#include "tests/support/jobs.h"

static constexpr pid_t FIRST_PID = 400, LAST_PID = 700;
static constexpr int STRANGERS = 100; /* at a time */

static struct {
    bool was_job[LAST_PID + 1000];
    int reused; /* strangers with the pid of an earlier job's child */
    int signalled;
    bool must_stop;
} *const seen = shared<std::remove_pointer_t<decltype(seen)>>();

/* The next forked process gets this pid, if it is free. */
static void set_next_pid(pid_t pid)
{
    const int last = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    const std::string before = std::to_string(pid - 1);
    if (write(last, before.data(), before.size()) < 0)
        _exit(1);
    close(last);
}

/* A stranger exits on SIGUSR1. One that was killed instead has been signaled by the library. */
static void end_stranger(pid_t stranger)
{
    int status = 0;
    kill(stranger, SIGUSR1);
    waitpid(stranger, &status, 0);
    seen->signalled += !WIFEXITED(status);
}

static void run_strangers()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_DFL);
    pid_t strangers[STRANGERS] = {};
    for (int i = 0; !seen->must_stop; i = (i + 1) % STRANGERS) {
        if (strangers[i] != 0)
            end_stranger(strangers[i]);
        strangers[i] = fork();
        if (strangers[i] == 0) {
            pause();
            _exit(0);
        }
        seen->reused += seen->was_job[strangers[i]];
        if (strangers[i] > LAST_PID)
            set_next_pid(FIRST_PID);
    }
    for (const pid_t stranger : strangers)
        if (stranger != 0)
            end_stranger(stranger);
}

static int wait_for_timeout(void *)
{
    seen->was_job[getpid()] = true;
    return pause();
}

static int end_early(void *)
{
    seen->was_job[getpid()] = true;
    return raise(SIGKILL);
}

/* Fails while every slot is held by a child that is still exiting. */
static bool is_started(spawnlet_body_t body)
{
    uint32_t handle;
    const job_options options = options_for(1);
    return spawnlet_fork_fp_async(body, nullptr, 1, &options, nullptr, nullptr, nullptr, &handle) == 0;
}

TEST(Strangers, WithReusedPidsAreNeverSignalled)
{
    const uint32_t queue = linux_queue_create();
    ASSERT_EQ(spawnlet_register_async_q(queue), 0u);
    signal(SIGUSR1, [](int) { _exit(0); });
    const pid_t strangers = fork();
    if (strangers == 0) {
        run_strangers();
        _exit(0);
    }
    signal(SIGCHLD, SIG_IGN);
    for (int timed_out = 0; timed_out < 1000;) {
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            ASSERT_TRUE(eventually([i] { return is_started(i % 4 == 0 ? end_early : wait_for_timeout); }));
        poll(nullptr, 0, 1000); /* the host is late: at its first check, all deadlines have passed */
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            timed_out += next_completion(queue).syserr == LINUX_JOB_TIMED_OUT;
    }
    seen->must_stop = true;
    waitpid(strangers, nullptr, 0);
    EXPECT_EQ(seen->signalled, 0);
    EXPECT_GT(seen->reused, 1000) << "pids were hardly reused";
    printf("%d strangers reused the pid of a job's child\n", seen->reused);
}

/* A job's child is killed and reaped before its parent opens a pidfd; then a stranger gets its pid. */

static struct {
    pid_t child, stranger;
} *const replaced = shared<std::remove_pointer_t<decltype(replaced)>>();
static bool replaces_next_child;

static void replace_by_stranger(pid_t child)
{
    replaced->child = child;
    kill(child, SIGKILL);
    eventually([child] { return kill(child, 0) != 0; });
    if (fork() == 0) { /* the stranger's parent */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGCHLD, SIG_DFL);
        set_next_pid(child);
        const pid_t stranger = fork();
        if (stranger != 0) {
            replaced->stranger = stranger;
            waitpid(stranger, nullptr, 0);
            replaced->stranger = 0;
        }
        pause();
    }
    eventually([] { return replaced->stranger != 0; });
}

extern "C" int __real_pidfd_open(pid_t pid, unsigned flags);

extern "C" int __wrap_pidfd_open(pid_t pid, unsigned flags)
{
    if (replaces_next_child)
        replace_by_stranger(pid);
    replaces_next_child = false;
    return __real_pidfd_open(pid, flags);
}

TEST(Strangers, WithReusedPidsAreNotTakenForJobs)
{
    signal(SIGCHLD, SIG_IGN);
    replaces_next_child = true;
    EXPECT_EQ(run_job(wait_for_timeout, nullptr, 1).code, LINUX_JOB_NO_RESOURCES);
    ASSERT_EQ(replaced->stranger, replaced->child);
    EXPECT_EQ(run_job(nothing).code, 0u);
    EXPECT_EQ(kill(replaced->child, 0), 0);
    EXPECT_EQ(replaced->stranger, replaced->child) << "the stranger was signaled";
}
