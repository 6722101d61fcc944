/*
 * Jobs whose process ids are reused by strangers, which belong to no job: the library must signal none of them. The
 * laboratory has its own pid namespace, in which this test chooses the pid of the next process.
 */
#include <sys/prctl.h>

#include "tests/support/jobs.h"

static struct {
    pid_t child;    /* of the last job */
    pid_t stranger; /* 0 after it was killed */
} *const seen = shared<std::remove_pointer_t<decltype(seen)>>();
static bool replaces_next_child;

/* Waits until the child is reaped, then forks a stranger with its pid. */
static void replace_by_stranger(pid_t child)
{
    ASSERT_TRUE(eventually([child] { return kill(child, 0) != 0; }));
    seen->stranger = 0;
    if (fork() == 0) { /* the host must not reap the stranger as its own child */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGCHLD, SIG_DFL);
        while (seen->stranger == 0) {
            std::ofstream("/proc/sys/kernel/ns_last_pid") << child - 1;
            const pid_t stranger = fork();
            while (stranger == 0 && getpid() == child)
                pause();
            if (stranger == 0)
                _exit(0); /* another process has taken the pid, or it was not free yet */
            seen->stranger = stranger == child ? child : 0;
            waitpid(stranger, nullptr, 0);
        }
        seen->stranger = 0;
        _exit(0);
    }
    ASSERT_TRUE(eventually([] { return seen->stranger != 0; }));
}

extern "C" int __real_pidfd_open(pid_t pid, unsigned flags);

extern "C" int __wrap_pidfd_open(pid_t pid, unsigned flags)
{
    seen->child = pid;
    if (replaces_next_child) {
        kill(pid, SIGKILL);
        replace_by_stranger(pid);
    }
    replaces_next_child = false;
    return __real_pidfd_open(pid, flags);
}

static void expect_stranger_survives()
{
    EXPECT_EQ(run_job(nothing).code, 0u); /* reaps earlier jobs */
    EXPECT_EQ(seen->stranger != 0 ? kill(seen->stranger, SIGKILL) : -1, 0) << "the stranger was signaled";
    ASSERT_TRUE(eventually([] { return seen->stranger == 0; }));
}

TEST(Strangers, WithReusedPidsAreNeverSignalled)
{
    alone([] {
        const uint32_t queue = linux_queue_create();
        ASSERT_EQ(spawnlet_register_async_q(queue), 0u);
        signal(SIGCHLD, SIG_IGN);
        replaces_next_child = true;
        EXPECT_EQ(run_job(hang, nullptr, 1).code, LINUX_JOB_NO_RESOURCES);
        expect_stranger_survives();
        for (const bool ends_early : {true, false}) {
            start_job(ends_early ? crash : hang, nullptr, 1);
            const pid_t child = seen->child;
            if (ends_early)
                replace_by_stranger(child);
            poll(nullptr, 0, 1100); /* the host is late: at its first check, the deadline has passed */
            EXPECT_EQ(next_completion(queue).syserr, ends_early ? LINUX_JOB_NO_RESULT : LINUX_JOB_TIMED_OUT);
            if (!ends_early)
                replace_by_stranger(child);
            expect_stranger_survives();
        }
    });
}
