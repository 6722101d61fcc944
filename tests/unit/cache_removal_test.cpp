#include <string.h>

#include "tests/support/fakes.h"

class CacheRemoval : public world_test
{
};

TEST_F(CacheRemoval, DropsEveryRecordOfTheHostAndNoOther)
{
    cached({.host = "a"});
    for (int vrf = 0; vrf < 3; vrf++)
        cached({.host = "ntp1", .vrf = vrf, .status = vrf});
    cached({.host = "b"});
    local_cache = g_list_prepend(local_cache, nullptr);
    cached({.host = "ntp1", .port = 1});
    cached({.host = "ntp11"});
    remove_entry_from_dns_cache("ntp1");
    EXPECT_EQ(hosts_in_cache(), (lines{"ntp11", "NULL", "b", "a"}));
    EXPECT_EQ(traces(), (lines{"Marking Server : ntp1 \n", "Server Found : ntp1\n", "Server Found : ntp1\n",
                               "Server Found : ntp1\n", "Server Found : ntp1\n"}));
    fake.log.clear();
    remove_entry_from_dns_cache("nobody");
    EXPECT_EQ(g_list_length(local_cache), 4u);
    EXPECT_EQ(traces(), (lines{"Marking Server : nobody \n"}));
}

TEST_F(CacheRemoval, EmptyCacheSaysSo)
{
    fake.history_on = true;
    remove_entry_from_dns_cache(nullptr);
    EXPECT_EQ(traces(), (lines{"Marking Server : (null) \n", "list: NULL\n"}));
    EXPECT_TRUE(logged("H:").back().starts_with("Exiting: remove_entry_from_dns_cache , Line : "));
}

TEST_F(CacheRemoval, NamesAreComparedOver511Characters)
{
    const std::string name(511, 'n');
    memset(cached({})->serv_name, 'n', 511);
    remove_entry_from_dns_cache((name + "other").c_str());
    EXPECT_EQ(local_cache, nullptr);
}
