/*
 * Jobs whose process ids are soon those of strangers, in the laboratory, whose processes have their own numbers. Those
 * come round all the time here, as they do with a small pid_max.
 */
#include <fcntl.h>
#include <sys/prctl.h>

#include "tests/support/jobs.h"

static constexpr pid_t FIRST_PID = 400, LAST_PID = 700;
static constexpr int STRANGERS = 100; /* at a time */

static struct {
    bool was_job[LAST_PID + 1000];
    int were_jobs; /* strangers that have the number of a job's child before them */
    int signalled;
    bool is_over;
} *const seen = shared<std::remove_pointer_t<decltype(seen)>>();

/* The next process that is forked has this number, if it is free. */
static void set_next_pid(pid_t pid)
{
    const int last = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    const std::string before = std::to_string(pid - 1);
    if (write(last, before.data(), before.size()) < 0)
        _exit(1);
    close(last);
}

/* Its turn to go comes for each, by itself. */
static void end_stranger(pid_t stranger)
{
    int status = 0;
    kill(stranger, SIGUSR1);
    waitpid(stranger, &status, 0);
    seen->signalled += !WIFEXITED(status);
}

static void be_strangers()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_DFL);
    pid_t crowd[STRANGERS] = {};
    for (int i = 0; !seen->is_over; i = (i + 1) % STRANGERS) {
        if (crowd[i] != 0)
            end_stranger(crowd[i]);
        crowd[i] = fork();
        if (crowd[i] == 0) {
            pause();
            _exit(0);
        }
        seen->were_jobs += seen->was_job[crowd[i]];
        if (crowd[i] > LAST_PID)
            set_next_pid(FIRST_PID);
    }
    for (const pid_t stranger : crowd)
        if (stranger != 0)
            end_stranger(stranger);
}

static int run_out_of_time(void *)
{
    seen->was_job[getpid()] = true;
    return pause();
}

static int end_early(void *)
{
    seen->was_job[getpid()] = true;
    return raise(SIGKILL);
}

/* Not while all the slots are those of children that leave. */
static bool is_started(spawnlet_body_t body)
{
    uint32_t handle;
    const job_options options = options_for(1);
    return spawnlet_fork_fp_async(body, nullptr, 1, &options, nullptr, nullptr, nullptr, &handle) == 0;
}

TEST(Strangers, AreNeverSignalled)
{
    const uint32_t queue = linux_queue_create();
    ASSERT_EQ(spawnlet_register_async_q(queue), 0u);
    signal(SIGUSR1, [](int) { _exit(0); });
    const pid_t strangers = fork();
    if (strangers == 0) {
        be_strangers();
        _exit(0);
    }
    signal(SIGCHLD, SIG_IGN);
    for (int timed_out = 0; timed_out < 1000;) {
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            ASSERT_TRUE(eventually([i] { return is_started(i % 4 == 0 ? end_early : run_out_of_time); }));
        poll(nullptr, 0, 1000); /* the host is late: time is over for all of them at its first look */
        for (int i = 0; i < LINUX_JOBS_MAX; i++)
            timed_out += next_completion(queue).syserr == LINUX_JOB_TIMED_OUT;
    }
    seen->is_over = true;
    waitpid(strangers, nullptr, 0);
    EXPECT_EQ(seen->signalled, 0);
    EXPECT_GT(seen->were_jobs, 1000) << "their numbers hardly came round";
    printf("%d strangers had the number of a job's child before them\n", seen->were_jobs);
}

/* A job's child that is killed and collected before its parent has a pidfd, and a stranger that then has its number. */

static struct {
    pid_t child, stranger;
} *const swapped = shared<std::remove_pointer_t<decltype(swapped)>>();
static bool swaps_next_child;

static void put_stranger_in_place_of(pid_t child)
{
    swapped->child = child;
    kill(child, SIGKILL);
    eventually([child] { return kill(child, 0) != 0; });
    if (fork() == 0) { /* whose child the stranger is */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGCHLD, SIG_DFL);
        set_next_pid(child);
        const pid_t stranger = fork();
        if (stranger != 0) {
            swapped->stranger = stranger;
            waitpid(stranger, nullptr, 0);
            swapped->stranger = 0;
        }
        pause();
    }
    eventually([] { return swapped->stranger != 0; });
}

extern "C" int __real_pidfd_open(pid_t pid, unsigned flags);

extern "C" int __wrap_pidfd_open(pid_t pid, unsigned flags)
{
    if (swaps_next_child)
        put_stranger_in_place_of(pid);
    swaps_next_child = false;
    return __real_pidfd_open(pid, flags);
}

TEST(Strangers, AreNotTakenForAChild)
{
    signal(SIGCHLD, SIG_IGN);
    swaps_next_child = true;
    EXPECT_EQ(run_job(run_out_of_time, nullptr, 1).code, LINUX_JOB_NO_RESOURCES);
    ASSERT_EQ(swapped->stranger, swapped->child);
    EXPECT_EQ(run_job(nothing).code, 0u);
    EXPECT_EQ(kill(swapped->child, 0), 0);
    EXPECT_EQ(swapped->stranger, swapped->child) << "it was signalled";
}
