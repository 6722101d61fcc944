/*
 * Outcomes of real jobs. A child that must be slow never answers.
 */
#include <map>

#include "tests/support/real_jobs.h"

extern "C" int __real_spawnlet_done(const void *buffer, uint32_t size);

extern "C" int __wrap_spawnlet_done(const void *buffer, uint32_t size)
{
    before_hand_back();
    if (size != sizeof(server_spawnlet_data_t))
        return __real_spawnlet_done(buffer, size);
    char bytes[2000] = "";
    memcpy(bytes, buffer, size);
    const std::string name = static_cast<const server_spawnlet_data_t *>(buffer)->serv_name;
    return __real_spawnlet_done(bytes, name == "short.test" ? 1675 : name == "long.test" ? 1677 : size);
}

extern "C" decltype(spawnlet_fork_fp_async) __real_spawnlet_fork_fp_async;

static const job_way *misbehaviour; /* of the next job, instead of resolving; may be nullptr */

extern "C" uint32_t __wrap_spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one,
                                                  const job_options *options, FILE *in, FILE *out, FILE *err,
                                                  uint32_t *handle)
{
    if (misbehaviour == nullptr)
        return __real_spawnlet_fork_fp_async(body, arg, one, options, in, out, err, handle);
    const job_options own = options_for(misbehaviour->code == LINUX_JOB_TIMED_OUT ? 1 : 20);
    return __real_spawnlet_fork_fp_async(misbehaviour->body, misbehaviour->arg, one, &own, in, out, err,
                                         handle);
}

TEST_F(RealJobs, SlowNameIsAnsweredFromTheCacheAfterItsCompletion)
{
    EXPECT_EQ(look_up("late.test"), -3);
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(complete_one().ret_info_size, 1676u);
    EXPECT_EQ(running_jobs, 0);
    EXPECT_EQ(job_list, nullptr);
    EXPECT_EQ(look_up("late.test"), 0);
    linux_job_counters started;
    linux_jobs_started(&started);
    EXPECT_EQ(started.blocking, 1u);
}

TEST_F(RealJobs, FailedJobsCacheNothing)
{
    const struct {
        const char *name;
        int result;
    } cases[] = {{"nosuch.test", EAI_NONAME},
                 {"short.test", -1},
                 {"long.test", -1},
                 {"odd.test", -1},
                 {"crash.test", -3}};
    for (const auto &c : cases) {
        EXPECT_EQ(look_up(c.name), c.result) << c.name;
        EXPECT_EQ(local_cache, nullptr) << c.name;
    }
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(complete_one().syserr, LINUX_JOB_NO_RESULT);
    EXPECT_EQ(add_entry_to_dns_cache("short.test", 123, 0, nullptr), 0);
    EXPECT_EQ(complete_one().ret_info_size, 1675u);
    EXPECT_EQ(local_cache, nullptr);
    EXPECT_EQ(running_jobs, 0);
}

TEST_F(RealJobs, EleventhBackgroundJobIsRefused)
{
    for (int port = 0; port < 10; port++)
        EXPECT_EQ(add_entry_to_dns_cache("stuck.test", port, 0, nullptr), 0);
    EXPECT_EQ(add_entry_to_dns_cache("stuck.test", 10, 0, nullptr), -1);
    EXPECT_EQ(look_up("stuck.test"), LINUX_JOB_TIMED_OUT); /* blocking jobs still start */
    EXPECT_EQ(look_up("crash.test"), -1);
    EXPECT_EQ(look_up("pair.test"), 0);
    EXPECT_EQ(running_jobs, 10);
}

/* scripts/soak runs ten times as many jobs. */
TEST_F(RealJobs, EachJobDeliversExactlyOneCompletion)
{
    const int jobs = 1000 * soak_factor();
    const size_t descriptors = open_descriptors().size();
    std::map<uint32_t, const job_way *> running;
    linux_completion none;
    pid_t copy = 0; /* a fork of the host, which shares its descriptors */
    for (int started = 0, ended = 0; ended < jobs;) {
        if (copy == 0 && ended > 10 && (copy = fork()) == 0)
            _exit(pause());
        for (; started < jobs && running.size() < MAX_SPAWNLETS; started++) {
            signal(SIGCHLD, started / 100 % 2 == 0 ? SIG_DFL : SIG_IGN);
            misbehaviour = &job_ways()[static_cast<size_t>(started) % job_ways().size()];
            linux_job_counters counters;
            ASSERT_EQ(add_entry_to_dns_cache(std::to_string(started).c_str(), 0, 0, nullptr), 0);
            linux_jobs_started(&counters);
            ASSERT_TRUE(running.emplace(counters.last_handle, misbehaviour).second);
        }
        const linux_completion done = complete_one();
        ASSERT_EQ(running.count(done.handle), 1u);
        const job_way &way = *running[done.handle];
        EXPECT_EQ(done.syserr, way.code);
        EXPECT_EQ(done.ret_syserr, way.result);
        EXPECT_EQ(done.ret_info_size, way.size);
        EXPECT_EQ(static_cast<size_t>(running_jobs), running.size() - 1 - completed.size());
        ended += static_cast<int>(running.erase(done.handle));
    }
    misbehaviour = nullptr;
    EXPECT_EQ(linux_queue_next(queue, &none), 0);
    EXPECT_FALSE(becomes_readable(queue, 0));
    EXPECT_EQ(job_list, nullptr);
    kill(copy, SIGKILL);
    waitpid(copy, nullptr, 0);
    EXPECT_EQ(descriptors_held(), descriptors);
}
