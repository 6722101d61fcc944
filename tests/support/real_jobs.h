/*
 * real_jobs.h: for tests of the library on the Linux platform layer: real forks, with the scripted resolver in the
 * children.
 */
#ifndef TESTS_SUPPORT_REAL_JOBS_H
#define TESTS_SUPPORT_REAL_JOBS_H

#include <filesystem>
#include <queue>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "tests/support/jobs.h"

/* In the child of a job. */
void before_hand_back();

/* In place of the marker file. */
extern bool log_is_switched_on;

/* One second is the shortest blocking wait there is. */
class RealJobs : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        setenv("SCRIPT_DIR", folder.c_str(), 1);
        queue = linux_queue_create();
        dns_cache_init(queue, 1);
    }

    void TearDown() override
    {
        std::filesystem::remove_all(folder);
        destroy_dns_cache(local_cache);
        destroy_dns_cache(job_list);
    }

    int look_up(const char *name)
    {
        struct addrinfo hints = {}, *chain = nullptr;
        const int result = getaddrinfo_async_mq3(name, "123", &hints, 0, &chain);
        EXPECT_EQ(chain != nullptr, result == 0);
        if (chain != nullptr)
            freeaddrinfo(chain);
        return result;
    }

    /* The record of the result is invalid. `completed` holds further completions, which later calls return. */
    linux_completion complete_one()
    {
        const auto keep = [](const linux_completion *done, void *all) {
            static_cast<std::queue<linux_completion> *>(all)->push(*done);
        };
        while (completed.empty() && becomes_readable(queue))
            linux_queue_dispatch(queue, dnscache_spawnletcb_job_done, keep, &completed);
        const linux_completion done = completed.front();
        completed.pop();
        return done;
    }

    /* Waits until the job service has reaped all children, then counts the descriptors. */
    size_t descriptors_held()
    {
        EXPECT_TRUE(eventually([this] {
            linux_completion none;
            siginfo_t child;
            linux_queue_next(queue, &none);
            return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0;
        }));
        linux_completion none;
        linux_queue_next(queue, &none);
        return open_descriptors().size();
    }

    std::string folder = std::filesystem::temp_directory_path() / "real_jobs_test.XXXXXX";
    uint32_t queue = 0;
    std::queue<linux_completion> completed;
};

#endif
