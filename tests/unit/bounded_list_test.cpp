#include "tests/support/fakes.h"

class BoundedList : public world_test
{
  protected:
    /* Adds a record of this name to the cache, as the library's callers do. */
    void prepend(const char *host)
    {
        auto *record = static_cast<server_spawnlet_data_t *>(malloc(sizeof(server_spawnlet_data_t)));
        *record = a_record({.host = host});
        local_cache = g_list_check_and_prepend(&local_cache, record, MAX_CACHE_ENTRIES);
    }

    /* host0 is the oldest. */
    void fill_cache(int records)
    {
        for (int i = 0; i < records; i++)
            cached({.host = ("host" + std::to_string(i)).c_str()});
    }
};

TEST_F(BoundedList, KeepsItsLimitAndGivesUpTheOldest)
{
    const struct {
        int before, limit, after;
    } cases[] = {{3, 0, 4}, {9, 10, 10}, {10, 10, 10}, {12, 10, 12}};
    fake.history_on = true;
    for (const auto &c : cases) {
        GList *list = nullptr;
        for (int i = 0; i < c.before; i++)
            list = g_list_prepend(list, malloc(1));
        void *oldest = g_list_last(list)->data, *newest = malloc(1);
        fake.log.clear();
        list = g_list_check_and_prepend(&list, newest, c.limit);
        EXPECT_EQ(static_cast<int>(g_list_length(list)), c.after);
        EXPECT_EQ(list->data, newest);
        EXPECT_EQ(fake.blocks.count(oldest), c.after > c.before ? 1u : 0u);
        lines expected = {"list_len = " + std::to_string(c.before) + "\n"};
        if (c.after == c.before)
            expected.push_back("Cache Size Exceeded.. Flushing Entries\n");
        EXPECT_EQ(traces(), expected);
        EXPECT_EQ(logged("H:Entering : refresh_dns_cache").size(), 0u);
        EXPECT_EQ(destroy_dns_cache(list), 0);
    }
}

TEST_F(BoundedList, RefusesNulls)
{
    cached({});
    GList *const before = local_cache;
    EXPECT_EQ(g_list_check_and_prepend(nullptr, before->data, 1), nullptr);
    EXPECT_EQ(g_list_check_and_prepend(&local_cache, nullptr, 1), before);
    EXPECT_EQ(traces(),
              (lines{"g_list_check_and_prepend(#) list NULL\n", "g_list_check_and_prepend(#) data NULL\n"}));
    EXPECT_EQ(hosts_in_cache(), (lines{"ntp1"}));
}

TEST_F(BoundedList, FullCacheOfFreshRecordsGivesUpItsOldest)
{
    fill_cache(64);
    prepend("new");
    EXPECT_EQ(g_list_length(local_cache), 64u);
    EXPECT_EQ(hosts_in_cache().front(), "new");
    EXPECT_EQ(hosts_in_cache().back(), "host1");
}

TEST_F(BoundedList, FullCacheDropsTheExpiredInsteadOfTheOldest)
{
    fill_cache(62);
    cached({.host = "empty", .status = ENTRY_EMPTY});
    cached({.host = "expired", .stamp = 900});
    prepend("new");
    EXPECT_EQ(g_list_length(local_cache), 63u);
    EXPECT_EQ(hosts_in_cache()[1], "host61");
    EXPECT_EQ(hosts_in_cache().back(), "host0");
    EXPECT_EQ(fake.forks.size(), 1u); /* for the expired one */
}

TEST_F(BoundedList, OneBelowTheLimitRunsNoRefreshPass)
{
    fill_cache(62);
    cached({.host = "expired", .stamp = 900});
    prepend("new");
    EXPECT_EQ(g_list_length(local_cache), 64u);
    EXPECT_EQ(traces(), (lines{"list_len = 63\n"}));
}

TEST_F(BoundedList, DestroyToleratesEmptyElements)
{
    EXPECT_EQ(destroy_dns_cache(nullptr), 0);
    GList *list = g_list_prepend(g_list_prepend(nullptr, malloc(1)), nullptr);
    EXPECT_EQ(destroy_dns_cache(list), 0); /* the fixture finds what was not freed */
}
