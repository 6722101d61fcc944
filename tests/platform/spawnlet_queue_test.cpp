#include <signal.h>

#include <set>

#include "tests/support/jobs.h"

/* One process has one queue, for all tests that run in it. */
static uint32_t the_queue()
{
    static const uint32_t queue = [] {
        const uint32_t created = linux_queue_create();
        EXPECT_EQ(spawnlet_register_async_q(created), 0u);
        return created;
    }();
    return queue;
}

static int echo(void *text)
{
    spawnlet_done(text, static_cast<uint32_t>(strlen(static_cast<char *>(text))));
    return -2;
}

static int crash(void *)
{
    return raise(SIGKILL);
}

static int hang(void *)
{
    return pause();
}

TEST(SpawnletQueue, DeliversJobsThatWereStartedBeforeIt)
{
    char text[] = "early";
    linux_completion done;
    EXPECT_EQ(linux_queue_next(1, &done), -1);
    const uint32_t handle = start_job(echo, text);
    done = next_completion(the_queue());
    EXPECT_EQ(done.handle, handle);
    EXPECT_EQ(done.syserr, 0u);
    EXPECT_EQ(done.ret_syserr, -2);
    EXPECT_EQ(std::string(static_cast<char *>(done.ret_info), done.ret_info_size), "early");
    EXPECT_EQ(linux_queue_next(the_queue(), &done), 0);
}

TEST(SpawnletQueue, RefusesWhatIsNoQueueAndASecondOne)
{
    EXPECT_EQ(spawnlet_register_async_q(0), LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_register_async_q(4000), LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_register_async_q(0xffffffff), LINUX_JOB_BAD_ARGUMENT);
    const uint32_t first = the_queue(), second = linux_queue_create();
    EXPECT_EQ(spawnlet_register_async_q(second), LINUX_JOB_BAD_ARGUMENT);
    linux_completion done;
    EXPECT_EQ(linux_queue_next(second, &done), -1);
    EXPECT_EQ(linux_queue_next(first, &done), 0);
    close(static_cast<int>(second));
}

TEST(SpawnletQueue, EveryStartedJobEndsInOneCompletion)
{
    char text[] = "text";
    for (const sighandler_t disposition : {SIG_DFL, SIG_IGN}) {
        signal(SIGCHLD, disposition);
        const size_t descriptors_before = (the_queue(), open_descriptors().size());
        std::set<uint32_t> waiting;
        for (int i = 0; i < 8; i++) {
            waiting.insert(start_job(echo, text));
            waiting.insert(start_job(crash));
            waiting.insert(start_job(hang, nullptr, 1));
        }
        EXPECT_EQ(waiting.size(), 24u);
        int codes[3] = {};
        for (int i = 0; i < 24; i++) {
            const linux_completion done = next_completion(the_queue());
            EXPECT_EQ(waiting.erase(done.handle), 1u);
            codes[done.syserr == 0 ? 0 : done.syserr == LINUX_JOB_NO_RESULT ? 1 : 2]++;
            EXPECT_EQ(done.ret_info_size, done.syserr == 0 ? 4u : 0u);
        }
        EXPECT_EQ(codes[0], 8);
        EXPECT_EQ(codes[1], 8);
        EXPECT_EQ(codes[2], 8);
        linux_completion none;
        EXPECT_EQ(linux_queue_next(the_queue(), &none), 0);
        EXPECT_FALSE(becomes_readable(the_queue(), 0));
        EXPECT_TRUE(eventually([descriptors_before, &none] {
            linux_queue_next(the_queue(), &none); /* reaps */
            return open_descriptors().size() == descriptors_before;
        }));
        EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
    }
}

TEST(SpawnletQueue, BoundsTheJobsAndCountsThem)
{
    linux_job_counters before, after;
    linux_jobs_started(&before);
    for (int i = 0; i < LINUX_JOBS_MAX; i++)
        start_job(hang, nullptr, 1);
    uint32_t handle = 99;
    const job_options options = options_for(1);
    EXPECT_EQ(spawnlet_fork_fp_async(hang, nullptr, 1, &options, nullptr, nullptr, nullptr, &handle),
              LINUX_JOB_NO_RESOURCES);
    EXPECT_EQ(handle, 99u);
    linux_jobs_started(&after);
    EXPECT_EQ(after.background - before.background, uint64_t{LINUX_JOBS_MAX});
    for (int i = 0; i < LINUX_JOBS_MAX; i++)
        EXPECT_EQ(next_completion(the_queue()).syserr, LINUX_JOB_TIMED_OUT);
    EXPECT_TRUE(
        eventually([] { return run_job(crash).code == LINUX_JOB_NO_RESULT; })); /* a slot is free again */
}
