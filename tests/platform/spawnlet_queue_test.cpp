#include <sys/epoll.h>

#include "tests/support/jobs.h"

/* A process can register only one queue: all tests in it share this one. */
static uint32_t the_queue()
{
    static const uint32_t queue = [] {
        const uint32_t created = linux_queue_create();
        EXPECT_EQ(spawnlet_register_async_q(created), 0u);
        return created;
    }();
    return queue;
}

TEST(SpawnletQueue, DeliversJobsStartedBeforeItsRegistration)
{
    linux_completion done;
    EXPECT_EQ(linux_queue_next(1, &done), -1);
    const uint32_t handle = start_job(job_ways()[1].body, job_ways()[1].arg);
    done = next_completion(the_queue());
    EXPECT_EQ(done.handle, handle);
    EXPECT_EQ(*static_cast<char *>(done.ret_info), 'b');
}

TEST(SpawnletQueue, RefusesInvalidDescriptorAndSecondQueue)
{
    EXPECT_EQ(spawnlet_register_async_q(0), LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_register_async_q(4000), LINUX_JOB_BAD_ARGUMENT);
    EXPECT_EQ(spawnlet_register_async_q(0xffffffff), LINUX_JOB_BAD_ARGUMENT);
    const uint32_t first = the_queue(), second = linux_queue_create();
    EXPECT_EQ(spawnlet_register_async_q(second), LINUX_JOB_BAD_ARGUMENT);
    linux_completion done;
    EXPECT_TRUE(linux_queue_dispatch(second, nullptr, nullptr, nullptr) == -1 && errno == EINVAL);
    EXPECT_EQ(linux_queue_next(first, &done), 0);
    close(static_cast<int>(second));
}

TEST(SpawnletQueue, AcceptsTimelyResultReadAfterTheDeadline)
{
    const job_way &largest = job_ways()[5];
    the_queue();
    start_job(largest.body, largest.arg, 1);
    siginfo_t exited;
    waitid(P_ALL, 0, &exited, WEXITED | WNOWAIT);
    poll(nullptr, 0, 1000); /* until the deadline has passed */
    linux_completion done = {};
    EXPECT_EQ(linux_queue_next(the_queue(), &done), 1); /* at the first call */
    EXPECT_EQ(done.syserr, 0u);
    EXPECT_EQ(done.ret_info_size, largest.size);
}

TEST(SpawnletQueue, DispatchDeliversAllWaitingCompletions)
{
    static std::string calls;
    struct epoll_event events[8];
    const int queue = static_cast<int>(the_queue());
    for (int i = 0; i < 2; i++)
        start_job(job_ways()[3].body, job_ways()[3].arg);
    /* Channel and pidfd of each job: both have exited. */
    ASSERT_TRUE(eventually([&] { return epoll_wait(queue, events, 8, 0) == 4; }));
    const auto deliver = [](uint32_t, uint32_t, void *record, uint32_t size, int32_t) {
        calls += (record != nullptr ? "record " : "none ") + std::to_string(size) + ", ";
    };
    const auto see = [](const linux_completion *done, void *) {
        calls += *static_cast<char *>(done->ret_info);
    };
    EXPECT_EQ(linux_queue_dispatch(the_queue(), deliver, see, nullptr), 2);
    EXPECT_EQ(calls, "record 1676, none 0, brecord 1676, none 0, b");
}

TEST(SpawnletQueue, LimitsAndCountsJobs)
{
    linux_job_counters before, after;
    the_queue();
    linux_jobs_started(&before);
    for (int i = 0; i < LINUX_JOBS_MAX; i++)
        start_job([](void *) { return pause(); }, nullptr, 1); /* only the deadline wakes the queue */
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
