#include <string.h>
#include <sys/socket.h>

#include "tests/support/fakes.h"

class Dumps : public world_test
{
};

TEST_F(Dumps, RecordShowsItsFieldsAndEachEntry)
{
    fake.history_on = true;
    server_spawnlet_data_t record = a_record({.addresses = {"192.0.2.1", "2001:db8::5", "192.0.2.3"}});
    record.addr[2][0] = 99; /* an unknown family, in whatever byte order */
    server_spawnlet_data_display(&record);
    EXPECT_EQ(traces(), (lines{"number of entries : 3\n",
                               "serv_name : ntp1\n",
                               "service : 123\n",
                               "vrf : 3\n",
                               "status : 3\n",
                               "ai_socktype : 1 \n",
                               "ai_protocol : 0 \n",
                               "ai_family   : 2 \n",
                               "ai_flags    : 0 \n",
                               "ip addr_len : 16 \n",
                               "host ip =192.0.2.1\n",
                               "ai_socktype : 1 \n",
                               "ai_protocol : 0 \n",
                               "ai_family   : 10 \n",
                               "ai_flags    : 0 \n",
                               "ip addr_len : 28 \n",
                               "host ip =2001:db8::5\n",
                               "ai_socktype : 1 \n",
                               "ai_protocol : 0 \n",
                               "ai_family   : 2 \n",
                               "ai_flags    : 0 \n",
                               "ip addr_len : 16 \n",
                               "get_sock_in_addr(#) invalid sa_family(99)\n"}));
    EXPECT_TRUE(logged("H:").front().starts_with("Entering : server_spawnlet_data_display : Line : "));
    EXPECT_TRUE(logged("H:")[6].starts_with("Entering : display_ip_addrs : Line : "));
    EXPECT_TRUE(logged("H:").back().starts_with("Exiting: server_spawnlet_data_display , Line : "));
}

TEST_F(Dumps, RecordCountsAreShownAsStoredAndBoundedWhenUsed)
{
    const struct {
        int stored;
        size_t host_lines;
    } cases[] = {{0, 0}, {-7, 0}, {6, 4}};
    for (const auto &c : cases) {
        fake.log.clear();
        server_spawnlet_data_t record =
            a_record({.addresses = {"192.0.2.1", "192.0.2.2", "::1", "192.0.2.4"}});
        record.num_entries = c.stored;
        server_spawnlet_data_display(&record);
        EXPECT_EQ(traces().front(), "number of entries : " + std::to_string(c.stored) + "\n");
        EXPECT_EQ(logged("P:host ip =").size(), c.host_lines);
    }
}

TEST_F(Dumps, SockaddrShowsSignedBytesAndFamily)
{
    struct sockaddr sa = {};
    sa.sa_family = 2;
    sa.sa_data[0] = 'A';
    sa.sa_data[13] = static_cast<char>(0xff);
    display_sockaddr(&sa);
    ASSERT_EQ(traces().size(), 15u);
    EXPECT_EQ(traces()[0], "ip addr->sa_data [0]: 65 : A\n");
    EXPECT_EQ(traces()[13], "ip addr->sa_data [13]: -1 : \xff\n");
    EXPECT_EQ(traces()[14], "ip addr->sa_family:  2 \n");
}

TEST_F(Dumps, AddressBytesLieWhereTheFamilySays)
{
    struct sockaddr_storage sa = {};
    auto *any = reinterpret_cast<struct sockaddr *>(&sa);
    sa.ss_family = AF_INET;
    EXPECT_EQ(get_sock_in_addr(any), reinterpret_cast<char *>(&sa) + 4);
    sa.ss_family = AF_INET6;
    EXPECT_EQ(get_sock_in_addr(any), reinterpret_cast<char *>(&sa) + 8);
    sa.ss_family = 65535;
    EXPECT_EQ(get_sock_in_addr(any), nullptr);
    EXPECT_EQ(get_sock_in_addr(nullptr), nullptr);
    display_ip_addrs(nullptr);
    EXPECT_EQ(traces(),
              (lines{"get_sock_in_addr(#) invalid sa_family(65535)\n", "get_sock_in_addr(#) sa is NULL\n"}));
}
