/*
 * The library on the Linux platform layer: real forks, with the scripted resolver in the children. A child
 * that has to be slow never answers; the one second of a blocking wait is the shortest there is.
 */
#include <netinet/in.h>

#include <filesystem>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "tests/support/jobs.h"

extern "C" int __real_spawnlet_done(const void *buffer, uint32_t size);

extern "C" int __wrap_spawnlet_done(const void *buffer, uint32_t size)
{
    char bytes[2000] = "";
    memcpy(bytes, buffer, size);
    const std::string name = static_cast<const server_spawnlet_data_t *>(buffer)->serv_name;
    return __real_spawnlet_done(bytes, name == "short.test" ? 1675 : name == "long.test" ? 1677 : size);
}

class RealJobs : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(folder), nullptr);
        setenv("SCRIPT_DIR", folder, 1);
        queue = linux_queue_create();
        dns_cache_init(queue, 1);
    }

    void TearDown() override
    {
        std::filesystem::remove_all(folder);
        destroy_dns_cache(local_cache);
        destroy_dns_cache(job_list);
    }

    int look_up(const std::string &name)
    {
        struct addrinfo hints = {}, *chain = nullptr;
        const int result = getaddrinfo_async_mq3(name.c_str(), "123", &hints, 0, &chain);
        EXPECT_EQ(chain != nullptr, result == 0);
        if (chain != nullptr)
            freeaddrinfo(chain);
        return result;
    }

    linux_completion complete_one()
    {
        const linux_completion done = next_completion(queue);
        dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
                                     done.ret_syserr);
        return done;
    }

    char folder[30] = "/tmp/real_jobs_test.XXXXXX";
    uint32_t queue = 0;
};

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

TEST_F(RealJobs, FailuresOfTheChildCacheNothing)
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

TEST_F(RealJobs, TenRunAndTheEleventhIsRefused)
{
    for (int port = 0; port < 10; port++)
        EXPECT_EQ(add_entry_to_dns_cache("stuck.test", port, 0, nullptr), 0);
    EXPECT_EQ(add_entry_to_dns_cache("stuck.test", 10, 0, nullptr), -1);
    EXPECT_EQ(look_up("stuck.test"), LINUX_JOB_TIMED_OUT); /* jobs of its own still run */
    EXPECT_EQ(look_up("crash.test"), -1);
    EXPECT_EQ(look_up("pair.test"), 0);
    EXPECT_EQ(running_jobs, 10);
}
