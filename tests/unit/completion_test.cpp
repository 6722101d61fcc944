#include <string.h>

#include "tests/support/fakes.h"

class Completion : public world_test
{
  protected:
    /* A completion of job 7 with this record, of which so many bytes came. */
    void complete(server_spawnlet_data_t record, size_t bytes = sizeof(server_spawnlet_data_t),
                  int ret_syserr = 0)
    {
        fake.log.clear();
        dnscache_spawnletcb_job_done(7, 0x66, &record, static_cast<uint32_t>(bytes), ret_syserr);
    }

    const lines removal = {"dnscache_spawnletcb_job_done(#):Spawnlet Handle Found in job_list.\n",
                           "dnscache_spawnletcb_job_done(#):Removing Job Handle from HDL List \n"};
};

TEST_F(Completion, StoresTheRecordAndForgetsTheJob)
{
    running("other", "1", 1, 8);
    running("ntp1", "123", 3, 7);
    running("ntp1", "123", 3, 9);
    cached({.status = ENTRY_INVALID}); /* does not count as an answer */
    fake.now = 5555;
    complete(a_record({.status = ENTRY_EMPTY, .stamp = 1}));
    EXPECT_EQ(g_list_length(local_cache), 2u);
    const auto *record = static_cast<server_spawnlet_data_t *>(local_cache->data);
    EXPECT_EQ(record->timestamp, 5555);
    EXPECT_EQ(record->status, ENTRY_EMPTY); /* as the child wrote it */
    EXPECT_EQ(running_jobs, 2);
    EXPECT_EQ(g_list_length(job_list), 2u);
    EXPECT_EQ(traces(),
              (lines{"dnscache_spawnletcb_job_done(#):Handle 0x7 syserr \"broken\" ret_info_size 1676  "
                     "ret_syserr 0 ret_info #\n",
                     "list length : 1\n", "serv_id: ntp1:123:3\n",
                     "check_local_cache(#):Returning NULL res as there  is no match found in "
                     "spawnlet_data_list(local_cache).",
                     "dnscache_spawnletcb_job_done(#):Updating res_cache from async-result. Appending res to "
                     "the res_list \n",
                     "list_len = 1\n", removal[0], removal[1]}));
}

TEST_F(Completion, OlderAnswerWins)
{
    running("ntp1", "123", 3, 7);
    cached({.addresses = {"192.0.2.9"}});
    complete(a_record({}));
    EXPECT_EQ(g_list_length(local_cache), 1u);
    EXPECT_EQ(running_jobs, 0);
    EXPECT_EQ(logged("P:").end()[-3],
              "dnscache_spawnletcb_job_done(#):cache entry is already existing ret_code(0)");
}

TEST_F(Completion, FailedJobsCacheNothingAndAreForgotten)
{
    const struct {
        size_t bytes;
        int ret_syserr;
    } cases[] = {{sizeof(server_spawnlet_data_t), EAI_AGAIN}, {1675, 0}, {0, 0}};
    for (const auto &c : cases) {
        running("ntp1", "123", 3, 7);
        complete(a_record({}), c.bytes, c.ret_syserr);
        EXPECT_EQ(local_cache, nullptr);
        EXPECT_EQ(job_list, nullptr);
        EXPECT_EQ(running_jobs, 0);
    }
    running("ntp1", "123", 3, 7);
    fake.log.clear();
    dnscache_spawnletcb_job_done(7, 0x66, nullptr, 1676, 0);
    EXPECT_EQ(traces(),
              (lines{"dnscache_spawnletcb_job_done(#):Handle 0x7 syserr \"broken\" ret_info_size 1676  "
                     "ret_syserr 0 ret_info 0\n",
                     removal[0], removal[1]}));
    EXPECT_EQ(running_jobs, 0);
}

TEST_F(Completion, UnknownHandleStoresAndRemovesNothing)
{
    running("ntp1", "123", 3, 8);
    complete(a_record({}));
    EXPECT_EQ(g_list_length(local_cache), 1u);
    EXPECT_EQ(running_jobs, 1);
}

TEST_F(Completion, OfTwoJobsWithOneHandleTheNewerGoes)
{
    running("older", "123", 3, 7);
    running("newer", "123", 3, 7);
    complete(a_record({}));
    EXPECT_STREQ(static_cast<server_addr_info *>(job_list->data)->serv_name, "older");
    EXPECT_EQ(running_jobs, 1);
}

TEST_F(Completion, OutOfMemoryKeepsTheJob)
{
    running("ntp1", "123", 3, 7);
    fake.failing_malloc = 1;
    complete(a_record({}));
    EXPECT_EQ(traces().back(), "Malloc Failed in server_spawnletcb_job_done : 1676\n");
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(local_cache, nullptr);
}

TEST_F(Completion, FullCacheIsRefreshedWhileTheJobStillCounts)
{
    running("ntp1", "123", 3, 7);
    running_jobs = 10;
    for (int i = 0; i < 64; i++)
        cached({.host = "old", .port = i, .stamp = 1});
    complete(a_record({}));
    EXPECT_EQ(hosts_in_cache(), (lines{"ntp1"}));
    EXPECT_EQ(fake.forks.size(), 0u); /* ten were running at that moment */
    EXPECT_EQ(running_jobs, 9);
}

TEST_F(Completion, UnterminatedKeyIsTerminated)
{
    server_spawnlet_data_t hostile = a_record({});
    memset(hostile.serv_id, 'x', sizeof hostile.serv_id);
    complete(hostile);
    EXPECT_EQ(traces()[2], "serv_id: " + std::string(523, 'x') + "\n");
    EXPECT_EQ(strlen(static_cast<server_spawnlet_data_t *>(local_cache->data)->serv_id), 523u);
}
