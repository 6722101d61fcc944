/*
 * The library's k-th malloc() fails, for every k until none does: each call ends with a result it has, and
 * lists, counters and memory are as if it had not been made.
 */
#include "tests/support/fakes.h"

class OutOfMemory : public world_test
{
  protected:
    /* Runs the call until it succeeds untouched. Returns how many allocations it made. */
    template <typename Call>
    int sweep(Call call)
    {
        for (int k = 1;; k++) {
            const GList *const cache_before = local_cache, *const jobs_before = job_list;
            const int32_t running_before = running_jobs;
            const auto blocks_before = fake.blocks;
            fake.failing_malloc = k;
            const bool succeeded = call();
            if (fake.failing_malloc > 0) {
                EXPECT_TRUE(succeeded);
                return k - 1;
            }
            fake.failing_malloc = 0;
            EXPECT_FALSE(succeeded) << "with allocation " << k << " failing";
            EXPECT_EQ(local_cache, cache_before);
            EXPECT_EQ(job_list, jobs_before);
            EXPECT_EQ(running_jobs, running_before);
            EXPECT_EQ(fake.blocks, blocks_before) << "with allocation " << k << " failing";
        }
    }

    /* After a failure the caller finds NULL, as left there. */
    bool look_up(int failure)
    {
        struct addrinfo hints = {}, *chain = nullptr;
        const int result = getaddrinfo_async_mq3("ntp1", "123", &hints, 3, &chain);
        if (result != 0) {
            EXPECT_EQ(result, failure);
            EXPECT_EQ(chain, nullptr);
            return false;
        }
        freeaddrinfo(chain);
        return true;
    }

    const server_spawnlet_data_t answer =
        a_record({.addresses = {"192.0.2.1", "192.0.2.2"}, .canonical = "name"});
};

TEST_F(OutOfMemory, MissWithAnAnswer)
{
    fake.ret_info = bytes_of(answer);
    EXPECT_EQ(sweep([this] { return look_up(-1); }), 6); /* two records, two nodes, two names */
}

TEST_F(OutOfMemory, HitTurnsIntoAMiss)
{
    cached({.addresses = {"192.0.2.1", "192.0.2.2"}, .canonical = "name"});
    fake.ret_syserr = EAI_FAIL;
    EXPECT_EQ(sweep([this] { return look_up(EAI_FAIL); }), 4);
}

TEST_F(OutOfMemory, LookupThatGoesOnInTheBackground)
{
    fake.blocking_syserr = 1;
    EXPECT_EQ(sweep([] {
                  struct addrinfo hints = {}, *chain = nullptr;
                  return getaddrinfo_async_mq3("ntp1", "123", &hints, 3, &chain) == -3;
              }),
              1);
}

TEST_F(OutOfMemory, BackgroundStart)
{
    EXPECT_EQ(sweep([] { return add_entry_to_dns_cache("ntp1", 123, 3, nullptr) == 0; }), 1);
}

TEST_F(OutOfMemory, BackgroundStartOfACachedName)
{
    cached({.addresses = {"192.0.2.1", "192.0.2.2"}});
    fake.async_syserr = 1;
    EXPECT_EQ(sweep([] { return add_entry_to_dns_cache("ntp1", 123, 3, nullptr) == 0; }), 2);
}

TEST_F(OutOfMemory, Completion)
{
    running("ntp1", "123", 3, 7);
    server_spawnlet_data_t record = answer;
    EXPECT_EQ(sweep([&record] {
                  dnscache_spawnletcb_job_done(7, 0, &record, sizeof record, 0);
                  return running_jobs == 0;
              }),
              1);
}

TEST_F(OutOfMemory, RefreshOfAnExpiredRecord)
{
    /* The pass has no result: what failed shows in that no job replaced the record. */
    fake.now = 2000;
    cached({});
    fake.failing_malloc = 1;
    refresh_dns_cache();
    EXPECT_EQ(local_cache, nullptr);
    EXPECT_EQ(job_list, nullptr);
    EXPECT_EQ(running_jobs, 0);
}
