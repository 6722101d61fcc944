#include <string.h>

#include "tests/support/fakes.h"

class CacheLookup : public world_test
{
  protected:
    void TearDown() override
    {
        if (chain != nullptr)
            freeaddrinfo(chain);
        world_test::TearDown();
    }

    struct addrinfo *chain = nullptr;
    const char *const miss = "check_local_cache(#):Returning NULL res as there  is no match found in "
                             "spawnlet_data_list(local_cache).";
};

TEST_F(CacheLookup, NewestUsableRecordAnswers)
{
    cached({.addresses = {"192.0.2.1"}});
    cached({.stamp = -5000, .addresses = {"192.0.2.2"}}); /* age is none of its business */
    cached({.status = ENTRY_INVALID, .addresses = {"192.0.2.3"}});
    cached({.vrf = 4});
    local_cache = g_list_prepend(local_cache, nullptr);
    fake.history_on = true;
    EXPECT_EQ(check_local_cache(local_cache, "ntp1:123:3", &chain), 0);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.2"}));
    EXPECT_EQ(traces(),
              (lines{"list length : 5\n", "serv_id: ntp1:123:3\n", "Entry Found\n",
                     "No of entries in server_spawnlet_data_t : 1 \n",
                     "check_local_cache(#):get_res_back() ret_code is SUCCESS(0) and res is allocated."}));
    EXPECT_TRUE(logged("H:").front().starts_with("Entering : check_local_cache : Line : "));
    EXPECT_EQ(logged("H:Exiting: check_local_cache").size(), 0u);
}

TEST_F(CacheLookup, MissLeavesTheResultAlone)
{
    fake.history_on = true;
    auto *const before = reinterpret_cast<struct addrinfo *>(this);
    chain = before;
    EXPECT_EQ(check_local_cache(nullptr, nullptr, &chain), -1);
    cached({.status = ENTRY_INVALID});
    cached({.port = 124});
    EXPECT_EQ(check_local_cache(local_cache, "ntp1:123:3", &chain), -1);
    EXPECT_EQ(chain, before);
    chain = nullptr;
    EXPECT_EQ(traces(), (lines{"list length : 0\n", "serv_id: (null)\n", miss, "list length : 2\n",
                               "serv_id: ntp1:123:3\n", miss}));
    EXPECT_TRUE(logged("H:").back().starts_with("Exiting: check_local_cache , Line : "));
}

TEST_F(CacheLookup, RecordWithoutEntriesEndsTheSearch)
{
    const struct {
        int count;
        const char *message;
    } cases[] = {
        {0, "check_local_cache(#): get_res_back, returned with NULL res!!! rt_code:-1 ASSERT ASSERT ASSERT."},
        {-1, "check_local_cache(#): get_res_back, returned with NULL res!!! though rt_code:0(SUCCESS) ASSERT "
             "ASSERT "
             "ASSERT."},
    };
    cached({.addresses = {"192.0.2.1"}});
    for (const auto &c : cases) {
        cached({.status = ENTRY_EMPTY})->num_entries = c.count;
        EXPECT_EQ(check_local_cache(local_cache, "ntp1:123:3", &chain), -1);
        EXPECT_EQ(chain, nullptr);
        EXPECT_EQ(traces().back(), c.message);
    }
}

TEST_F(CacheLookup, KeysAreComparedOver523Characters)
{
    const std::string key(523, 'k');
    memset(cached({})->serv_id, 'k', 524);
    EXPECT_EQ(check_local_cache(local_cache, (key + "x").c_str(), &chain), 0);
}

TEST_F(CacheLookup, GoesOnAfterAPartialChainAndReleasesIt)
{
    cached({.addresses = {"192.0.2.1"}});
    cached({.addresses = {"192.0.2.2", "192.0.2.3"}});
    fake.failing_malloc = 2;
    EXPECT_EQ(check_local_cache(local_cache, "ntp1:123:3", &chain), 0);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.1"}));
    EXPECT_EQ(traces()[5], "check_local_cache(#):get_res_back() returned -1(error) but res in not null.");
}

TEST_F(CacheLookup, APartialChainThatNothingFollowsIsLeftToTheCaller)
{
    cached({.addresses = {"192.0.2.2", "192.0.2.3"}});
    fake.failing_malloc = 2;
    EXPECT_EQ(check_local_cache(local_cache, "ntp1:123:3", &chain), -1);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.2"}));
    EXPECT_EQ(traces().back(), miss);
}
