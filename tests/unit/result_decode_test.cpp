#include <string.h>

#include "tests/support/fakes.h"

class ResultDecode : public world_test
{
};

TEST_F(ResultDecode, ChainOutlivesItsRecord)
{
    fake.history_on = true;
    server_spawnlet_data_t record =
        a_record({.addresses = {"192.0.2.1", "2001:db8::5", "192.0.2.3"}, .canonical = "ntp1.example"});
    record.canonname[1][0] = '\0';
    struct addrinfo *chain = nullptr;
    ASSERT_EQ(get_res_back(&record, &chain), 0);
    memset(&record, 0xee, sizeof record);
    EXPECT_EQ(addresses_of(chain), (lines{"192.0.2.1", "2001:db8::5", "192.0.2.3"}));
    EXPECT_EQ(chain->ai_addrlen, 16u);
    EXPECT_EQ(chain->ai_next->ai_addrlen, 28u);
    EXPECT_EQ(chain->ai_socktype, SOCK_STREAM);
    EXPECT_STREQ(chain->ai_canonname, "ntp1.example");
    EXPECT_EQ(chain->ai_next->ai_canonname, nullptr);
    EXPECT_EQ(traces(), (lines{"No of entries in server_spawnlet_data_t : 3 \n", "IPV6 Address here \n"}));
    EXPECT_TRUE(logged("H:").back().starts_with("Exiting: get_res_back , Line : "));
    freeaddrinfo(chain);
}

TEST_F(ResultDecode, CountsAreBounded)
{
    const struct {
        int stored, result;
        size_t nodes;
        lines messages;
    } cases[] = {
        {0, -1, 0, {"No entries in server_spawnlet_data_t structure\n"}},
        {-1, 0, 0, {"No of entries in server_spawnlet_data_t : -1 \n"}},
        {7,
         0,
         4,
         {"get_res_back(#) more dns entries/host(7) received than Supported(4)\n",
          "No of entries in server_spawnlet_data_t : 4 \n"}},
    };
    for (const auto &c : cases) {
        fake.log.clear();
        server_spawnlet_data_t record =
            a_record({.addresses = {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4"}});
        record.num_entries = c.stored;
        struct addrinfo *chain = reinterpret_cast<struct addrinfo *>(&record);
        EXPECT_EQ(get_res_back(&record, &chain), c.result);
        EXPECT_EQ(addresses_of(chain).size(), c.nodes);
        EXPECT_EQ(traces(), c.messages);
        if (chain != nullptr)
            freeaddrinfo(chain);
    }
    struct addrinfo *chain = reinterpret_cast<struct addrinfo *>(&fake);
    EXPECT_EQ(get_res_back(nullptr, &chain), -1);
    EXPECT_EQ(chain, nullptr);
    EXPECT_EQ(traces().back(), "ptr == NULL\n");
}

TEST_F(ResultDecode, HostileTextAndLengthsStayInside)
{
    server_spawnlet_data_t record = a_record({.addresses = {"192.0.2.1", "2001:db8::5"}});
    memset(record.canonname[0], 'c', sizeof record.canonname[0]);
    record.ai_hdr[0].ai_addrlen = 0xffffffff;
    record.ai_hdr[1].ai_addrlen = 33;
    struct addrinfo *chain = nullptr;
    ASSERT_EQ(get_res_back(&record, &chain), 0);
    EXPECT_EQ(chain->ai_canonname, std::string(64, 'c'));
    EXPECT_EQ(chain->ai_addrlen, 16u);
    EXPECT_EQ(chain->ai_next->ai_addrlen, 32u);
    EXPECT_EQ(traces()[1], "invalid canonname_len(65) allowed(64) \n");
    freeaddrinfo(chain);
}

TEST_F(ResultDecode, OutOfMemoryLeavesTheChainSoFar)
{
    /* Two nodes, each with a name: four allocations. */
    const struct {
        int failing;
        size_t nodes;
        const char *message;
    } cases[] = {{1, 0, "Malloc Failed\n"},
                 {2, 1, "Malloc Failed \n"},
                 {3, 1, "Malloc Failed\n"},
                 {4, 2, "Malloc Failed \n"}};
    for (const auto &c : cases) {
        server_spawnlet_data_t record =
            a_record({.addresses = {"192.0.2.1", "192.0.2.2"}, .canonical = "name"});
        struct addrinfo *chain = nullptr;
        fake.failing_malloc = c.failing;
        EXPECT_EQ(get_res_back(&record, &chain), -1);
        EXPECT_EQ(addresses_of(chain).size(), c.nodes);
        EXPECT_EQ(traces().back(), c.message);
        if (chain != nullptr)
            freeaddrinfo(chain);
    }
}
