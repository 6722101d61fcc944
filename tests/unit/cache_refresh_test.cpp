#include <string.h>

#include "tests/support/fakes.h"

class CacheRefresh : public world_test
{
};

TEST_F(CacheRefresh, ExpiresByAgeAlone)
{
    const struct {
        int32_t now, stamp, lifetime;
        bool expired;
    } cases[] = {
        {1000, 940, 60, false},
        {1000, 939, 60, true},
        {1000, 5000, 60, false},
        {1000, 1000, 0, false},
        {1000, 999, 0, true},
        {1000, 1000, -1, true},
        {INT32_MIN + 5, INT32_MAX - 4, 60, false}, /* ten seconds across the end of 32-bit time */
    };
    for (const auto &c : cases) {
        fake.log.clear();
        fake.now = c.now;
        dns_cache_set_timeout(c.lifetime);
        cached({.stamp = c.stamp});
        refresh_dns_cache();
        EXPECT_EQ(local_cache == nullptr, c.expired) << c.now << " " << c.stamp << " " << c.lifetime;
        EXPECT_EQ(calls().size(), c.expired ? 3u : 0u);
        destroy_dns_cache(local_cache);
        destroy_dns_cache(job_list);
        local_cache = job_list = nullptr;
        running_jobs = 0;
    }
}

TEST_F(CacheRefresh, ResolvesAnewInTheBackgroundThenPurges)
{
    fake.history_on = true;
    cached({.host = "fresh"});
    cached({.host = "old", .port = 80, .vrf = 7, .stamp = 900})->hints.ai_family = 10;
    refresh_dns_cache();
    EXPECT_EQ(hosts_in_cache(), (lines{"fresh"}));
    EXPECT_EQ(calls(), (lines{"rtctx_close", "fork_async", "rtctx_init"}));
    EXPECT_EQ(traces(),
              (lines{"Timeout : 100 Cache timeout : 60\n", "Timer Expired . Marking it as INVALID\n",
                     "cache id = old:80:7\n", "list length : 2\n", "serv_id: old:80:7\n",
                     "check_local_cache(#):Returning NULL res as there  is no match found in "
                     "spawnlet_data_list(local_cache).",
                     "Adding Server : old:80 \n", "syserr for spawnlet_fork_fp_async : 0\n",
                     "Added to Job HDL List \n", "list_len = 0\n", "Async Name Resolution Job Forked \n",
                     "Timeout : 0 Cache timeout : 60\n", "list length before remove: 2\n",
                     "dns_inf->status : 1    dns_inf->serv_name: old\n", "list length after remove: 1\n"}));
    EXPECT_TRUE(logged("H:").front().starts_with("Entering : refresh_dns_cache : Line : "));
    EXPECT_TRUE(logged("H:").back().starts_with("Exiting: refresh_dns_cache , Line : "));
    EXPECT_EQ(logged("H:Exiting: add_entry_to_dns_cache").size(), 1u);

    ASSERT_EQ(fake.forks.size(), 1u);
    const fork_call &job = fake.forks[0];
    job_options expected = {};
    expected.job_tag = job.options.job_tag;
    expected.record_size = 44;
    expected.option_flag = 1;
    EXPECT_EQ(memcmp(&job.options, &expected, sizeof expected), 0);
    EXPECT_TRUE(job.is_resolver && job.in == stdin && job.out == stdout && job.err == stderr);
    EXPECT_STREQ(job.request.service, "80");
    EXPECT_EQ(job.request.vrf, 7);
    EXPECT_EQ(job.request.hints.ai_family, 10);
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(static_cast<server_addr_info *>(job_list->data)->job_handle, 0x100u);
}

TEST_F(CacheRefresh, OfTwoExpiredTwinsOnlyTheOlderStartsAJob)
{
    cached({.stamp = 900});
    cached({.stamp = 901});
    refresh_dns_cache();
    EXPECT_EQ(logged("P:Adding Server").size(), 1u);
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(local_cache, nullptr);
}

TEST_F(CacheRefresh, PurgeKeepsResolvedRecordsOnly)
{
    remove_old_entries_from_local_cache();
    EXPECT_EQ(traces(), lines{});
    cached({.host = "kept"});
    cached({.host = "failed", .status = ENTRY_FAILED});
    local_cache = g_list_prepend(local_cache, nullptr);
    cached({.host = "empty", .status = ENTRY_EMPTY});
    remove_old_entries_from_local_cache();
    EXPECT_EQ(hosts_in_cache(), (lines{"kept"}));
    EXPECT_EQ(traces(),
              (lines{"list length before remove: 4\n", "dns_inf->status : 0    dns_inf->serv_name: empty\n",
                     "dns_inf is NULL\n", "dns_inf->status : 2    dns_inf->serv_name: failed\n",
                     "list length after remove: 1\n"}));
    static_cast<server_spawnlet_data_t *>(local_cache->data)->status = ENTRY_INVALID;
    fake.log.clear();
    remove_old_entries_from_local_cache();
    EXPECT_EQ(local_cache, nullptr);
    EXPECT_EQ(logged("P:list length after").size(), 0u);
}

TEST_F(CacheRefresh, BackgroundStartIsRefusedOrNeedless)
{
    struct outcome {
        const char *host;
        int vrf, result, jobs_after;
        const char *last_trace;
    };
    const auto expect = [](const outcome &c) {
        fake.log.clear();
        EXPECT_EQ(add_entry_to_dns_cache(c.host, 123, c.vrf, nullptr), c.result) << c.last_trace;
        EXPECT_EQ(running_jobs, c.jobs_after) << c.last_trace;
        EXPECT_EQ(traces().back(), c.last_trace);
    };
    cached({});
    expect({"ntp1", 3, 0, 0,
            "check_local_cache(#):get_res_back() ret_code is SUCCESS(0) and res is allocated."});
    expect({nullptr, 3, -1, 0, "Adding Server : (null):123 \n"});
    running("ntp2", "123", 3);
    expect({"ntp2", 3, 0, 1,
            "add_entry_to_dns_cache(#):Job Already Forked for server:ntp2 and service:123!! returning 0.\n"});
    expect({"ntp2", 4, 0, 2, "Async Name Resolution Job Forked \n"});
    fake.async_syserr = 0x77;
    expect({"ntp3", 3, -1, 2, "syserr for spawnlet_fork_fp_async : 119\n"});
    fake.async_syserr = 0;
    fake.rtctx_result = 0;
    expect({"ntp4", 3, 0, 3, "Async Name Resolution Job Forked \n"});
    EXPECT_EQ(traces().end()[-5], "add_entry_to_dns_cache(#): rtctx_api_init fail\n");
    running_jobs = 9;
    expect({"ntp5", 3, 0, 10, "Async Name Resolution Job Forked \n"});
    expect({"ntp6", 3, -1, 10, "Running jobs have exceeded than MAX_SPAWNLETS\n"});
}
