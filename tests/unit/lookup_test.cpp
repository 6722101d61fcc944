#include <signal.h>
#include <string.h>

#include "tests/support/fakes.h"

static const char null_result[] = "getaddrinfo_async_mq3(#):Returning NULL res!!!ASSERT ASSERT ASSERT.\n";

class Lookup : public world_test
{
  protected:
    int look_up(const char *host = "ntp1", const char *service = "123", int vrf = 3)
    {
        if (chain != nullptr)
            freeaddrinfo(chain);
        chain = nullptr;
        fake.log.clear();
        return getaddrinfo_async_mq3(host, service, &hints, vrf, &chain);
    }

    /* Traces from the job on. */
    static lines after_the_job()
    {
        const lines all = traces();
        for (size_t i = 0; i < all.size(); i++)
            if (all[i].starts_with("getaddrinfo_async_mq3(#):spawnlet_fork_fp:syserr:"))
                return {all.begin() + static_cast<long>(i) + 1, all.end()};
        return {"no job"};
    }

    void TearDown() override
    {
        if (chain != nullptr)
            freeaddrinfo(chain);
        world_test::TearDown();
    }

    struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
};

TEST_F(Lookup, RefusesMissingArgumentsWithoutATrace)
{
    EXPECT_EQ(getaddrinfo_async_mq3(nullptr, "1", &hints, 0, &chain), -1);
    EXPECT_EQ(getaddrinfo_async_mq3("h", nullptr, &hints, 0, &chain), -1);
    EXPECT_EQ(getaddrinfo_async_mq3("h", "1", nullptr, 0, &chain), -1);
    EXPECT_EQ(fake.log, lines{});
}

TEST_F(Lookup, HitTakesNothingAndForksNothing)
{
    cached({});
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.1"}));
    EXPECT_EQ(calls(), lines{});
    EXPECT_EQ(traces().front(), "cache id = ntp1:123:3\n");
    EXPECT_EQ(traces().back(), "Found in Local Cache\n");
    EXPECT_EQ(look_up("ntp1", "123", 4), -1); /* another VRF is another key */
    cached({.port = 0});
    EXPECT_EQ(look_up("ntp1", "ntp"), 0);
    EXPECT_EQ(look_up("ntp1", "dns"), 0); /* services without a number share a key */
}

TEST_F(Lookup, MissRunsABlockingJobAndCachesItsRecord)
{
    signal(SIGCHLD, [](int) {});
    cached({.host = "other"});
    fake.ret_info =
        bytes_of(a_record({.status = ENTRY_EMPTY, .stamp = 5, .addresses = {"192.0.2.1", "2001:db8::5"}}));
    fake.now = 7777;
    blocking_timeout = 2;
    ASSERT_EQ(look_up(), 0);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.1", "2001:db8::5"}));
    EXPECT_EQ(calls(), (lines{"rtctx_close", "fork", "rtctx_init"}));
    EXPECT_EQ(
        traces(),
        (lines{"cache id = ntp1:123:3\n", "list length : 1\n", "serv_id: ntp1:123:3\n",
               "check_local_cache(#):Returning NULL res as there  is no match found in "
               "spawnlet_data_list(local_cache).",
               "for server(ntp1):No cache entry - No sync-job\n",
               "trying to resolve using blocking spawnlet with timeout 2 secs \n",
               "getaddrinfo_async_mq3(#):spawnlet_fork_fp:syserr:0x0 ret_syserr:0x0 str(syserr): fine\n",
               "No of entries in server_spawnlet_data_t : 2 \n", "IPV6 Address here \n",
               "get_res_back Sucess . adding to list \n", "list_len = 1\n"}));
    EXPECT_EQ(hosts_in_cache(), (lines{"ntp1", "other"}));
    const auto *record = static_cast<server_spawnlet_data_t *>(local_cache->data);
    EXPECT_EQ(record->status, ENTRY_RESOLVED);
    EXPECT_EQ(record->timestamp, 7777);

    const fork_call &job = fake.forks.at(0);
    EXPECT_TRUE(job.is_resolver && job.sigchld_is_default);
    EXPECT_TRUE(job.in == stdin && job.out == nullptr && job.err == nullptr);
    EXPECT_EQ(job.options.record_size, 44u);
    EXPECT_EQ(job.options.timeout_secs, 2);
    EXPECT_EQ(job.options.option_flag, 1u);
    EXPECT_STREQ(job.request.serv_name, "ntp1");
    EXPECT_EQ(job.request.vrf, 3);
    EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

TEST_F(Lookup, BlockingJobGetsTheOpenDebugLog)
{
    fake.marker_exists = true;
    look_up();
    ASSERT_NE(log_file, nullptr);
    EXPECT_TRUE(fake.forks.at(0).out == log_file && fake.forks.at(0).err == log_file);
}

TEST_F(Lookup, SlowJobGoesOnInTheBackground)
{
    fake.blocking_syserr = 0x66;
    fake.rtctx_result = 0;
    EXPECT_EQ(look_up(), -3);
    EXPECT_EQ(calls(),
              (lines{"rtctx_close", "fork", "rtctx_init", "rtctx_close", "fork_async", "rtctx_init"}));
    EXPECT_EQ(traces()[6], "getaddrinfo_async_mq3(#): rtctx_api_init fail\n");
    EXPECT_EQ(traces()[7],
              "getaddrinfo_async_mq3(#):spawnlet_fork_fp:syserr:0x66 ret_syserr:0x0 str(syserr): broken\n");
    EXPECT_EQ(
        after_the_job(),
        (lines{"getaddrinfo_async_mq3(#): rtctx_api_init fail\n", "syserr for spawnlet_fork_fp_async : 0x0\n",
               "getaddrinfo_async_mq3(#):Added resolver thread for server ntp1 to Job HDL List \n",
               "list_len = 0\n",
               "getaddrinfo_async_mq3(#):Async Name Resolution Job Forked for server ntp1 \n", null_result}));
    EXPECT_EQ(running_jobs, 1);
    EXPECT_EQ(static_cast<server_addr_info *>(job_list->data)->job_handle, 0x100u);
    const fork_call &blocking = fake.forks.at(0), &background = fake.forks.at(1);
    EXPECT_EQ(background.options.timeout_secs, 300);
    EXPECT_EQ(background.options.job_tag, blocking.options.job_tag);
    EXPECT_FALSE(background.sigchld_is_default);
    EXPECT_TRUE(background.in == stdin && background.out == stdout && background.err == stderr);
}

TEST_F(Lookup, OneHostHasOneBackgroundJobWhateverItsVrf)
{
    fake.blocking_syserr = 0x66;
    running("ntp1", "123", 9);
    running("ntp1", "80", 3);
    EXPECT_EQ(look_up(), 0x66);
    EXPECT_EQ(running_jobs, 2);
    EXPECT_EQ(traces()[4], "getaddrinfo_async_mq3(#):Job Already Forked for server ntp1\n");
    EXPECT_EQ(traces()[5], traces()[4]);
    EXPECT_EQ(traces()[6], "for server(ntp1):sync-job found - No cache entry \n");
    EXPECT_EQ(after_the_job(), (lines{"spawnlet fail with syserr(102)\n", null_result}));
    fake.blocking_syserr = 0;
    fake.ret_info = bytes_of(a_record({}));
    EXPECT_EQ(look_up(), 0);
    EXPECT_EQ(calls(), (lines{"rtctx_close", "fork", "rtctx_init"}));
}

TEST_F(Lookup, BackgroundStartsAreBoundedAndMayBeRefused)
{
    fake.blocking_syserr = 0x66;
    running_jobs = 9;
    EXPECT_EQ(look_up("a"), -3);
    EXPECT_EQ(running_jobs, 10);
    EXPECT_EQ(look_up("b"), -1);
    EXPECT_EQ(
        after_the_job(),
        (lines{"Running jobs have exceeded than MAX_SPAWNLETS, treating as not-resolvable.\n", null_result}));
    running_jobs = 0;
    fake.async_syserr = 0x77;
    EXPECT_EQ(look_up("c"), -1);
    EXPECT_EQ(after_the_job(), (lines{"syserr for spawnlet_fork_fp_async : 0x77\n",
                                      "****** Freeing serv_ptr #  ******** \n", null_result}));
    EXPECT_EQ(running_jobs, 0);
    EXPECT_EQ(g_list_length(job_list), 1u);
}

TEST_F(Lookup, FailuresOfTheJobAreReportedAndNotCached)
{
    auto whole = bytes_of(a_record({})), empty = bytes_of(a_record({.addresses = {}}));
    server_spawnlet_data_t hostile = a_record({});
    hostile.num_entries = -1;
    auto too_short = whole, too_long = whole;
    too_short.pop_back();
    too_long.push_back(0);
    const lines undecoded = {"No entries in server_spawnlet_data_t structure\n",
                             "get_res_back Failed in getaddrinfo_async\n", null_result};
    const struct {
        std::vector<unsigned char> ret_info;
        int ret_syserr, result;
        lines messages;
    } cases[] = {
        {{},
         EAI_NONAME,
         EAI_NONAME,
         {"getaddrinfo_async_mq3(#):Job Completed Successfully for server:ntp1 but unable to resolve\n",
          "getaddrinfo_async_mq3(#): DNS fail(-2:Name or service not known)\n", null_result}},
        {too_short, 0, -1, {null_result}},
        {too_long, 0, -1, {null_result}},
        {{}, 0, -1, {null_result}},
        {empty, 0, -1, undecoded},
        {bytes_of(hostile), 0, -1, undecoded},
    };
    for (const auto &c : cases) {
        fake.ret_info = c.ret_info;
        fake.ret_syserr = c.ret_syserr;
        EXPECT_EQ(look_up(), c.result);
        EXPECT_EQ(after_the_job(), c.messages);
        EXPECT_EQ(chain, nullptr);
        EXPECT_EQ(local_cache, nullptr);
        EXPECT_EQ(fake.forks.size(), 1u);
        fake.forks.clear();
    }
    fake.ret_info = whole;
    fake.loses_buffer = true;
    EXPECT_EQ(look_up(), -1);
}

TEST_F(Lookup, UnterminatedTextOfAChildIsTerminated)
{
    server_spawnlet_data_t hostile = a_record({});
    memset(hostile.serv_id, 'x', sizeof hostile.serv_id);
    memset(hostile.serv_name, 'x', sizeof hostile.serv_name);
    memset(hostile.service, '1', sizeof hostile.service);
    fake.ret_info = bytes_of(hostile);
    EXPECT_EQ(look_up(), 0);
    const auto *record = static_cast<server_spawnlet_data_t *>(local_cache->data);
    EXPECT_EQ(strlen(record->serv_id), 523u);
    EXPECT_EQ(strlen(record->serv_name), 511u);
    EXPECT_EQ(strlen(record->service), 11u);
}

TEST_F(Lookup, ResultThatTheCallerDidNotClearIsLeftAlone)
{
    fake.ret_syserr = EAI_NONAME;
    struct addrinfo stale = {};
    struct addrinfo *res = &stale;
    EXPECT_EQ(getaddrinfo_async_mq3("ntp1", "123", &hints, 3, &res), EAI_NONAME);
    EXPECT_EQ(res, &stale);
    EXPECT_EQ(traces().back(), "getaddrinfo_async_mq3(#): DNS fail(-2:Name or service not known)\n");
}
