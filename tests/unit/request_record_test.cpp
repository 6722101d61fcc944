#include "dnscache/records/request_record.h"

#include <string.h>

#include "tests/support/fakes.h"

class RequestRecord : public world_test
{
};

TEST_F(RequestRecord, RefusesNullsAndTouchesNothing)
{
    server_addr_info record;
    memset(&record, 0x77, sizeof record);
    const server_addr_info before = record;
    EXPECT_EQ(server_addr_init(nullptr, "1", nullptr, 0, &record), -1);
    EXPECT_EQ(server_addr_init("h", nullptr, nullptr, 0, &record), -1);
    EXPECT_EQ(server_addr_init("h", "1", nullptr, 0, nullptr), -1);
    EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
}

TEST_F(RequestRecord, CutsTextAndClearsTheRest)
{
    server_addr_info record;
    memset(&record, 0x77, sizeof record);
    const std::string host(600, 'h');
    ASSERT_EQ(server_addr_init(host.c_str(), "123456789012345", nullptr, -2, &record), 0);
    EXPECT_EQ(record.serv_name, host.substr(0, 511));
    EXPECT_STREQ(record.service, "12345678901");
    EXPECT_EQ(record.vrf, -2);
    EXPECT_EQ(record.job_handle, 0u);
    const dnscache_addrinfo_image zero = {};
    EXPECT_EQ(memcmp(&record.hints, &zero, sizeof zero), 0);
}

TEST_F(RequestRecord, CarriesTheHints)
{
    struct addrinfo hints = {};
    hints.ai_flags = 1;
    hints.ai_family = 10;
    hints.ai_socktype = 2;
    hints.ai_protocol = 17;
    hints.ai_addrlen = 5;
    hints.ai_next = &hints;
    server_addr_info record;
    ASSERT_EQ(server_addr_init("h", "1", &hints, 0, &record), 0);
    const dnscache_addrinfo_image expected = {1, 10, 2, 17, 5, 0, 0, 0};
    if (sizeof hints == sizeof expected)
        EXPECT_EQ(memcmp(&record.hints, &hints, sizeof expected), 0);
    else
        EXPECT_EQ(memcmp(&record.hints, &expected, sizeof expected), 0);
}

TEST_F(RequestRecord, KeyJoinsHostPortAndVrf)
{
    const std::string host(120, 'h');
    const struct {
        const char *host;
        int port;
        long vrf;
        std::string key;
    } cases[] = {
        {"ntpserver", 123, 3, "ntpserver:123:3"},
        {"h", -1, -2, "h:-1:-2"},
        {host.c_str(), 1, 2, host.substr(0, 98)},
    };
    for (const auto &c : cases) {
        fake.log.clear();
        char out[512];
        memset(out, 'x', sizeof out);
        EXPECT_EQ(create_hostcache_id(c.host, c.port, c.vrf, out), c.key);
        EXPECT_EQ(std::string(out, 99), c.key + std::string(99 - c.key.size(), '\0'));
        EXPECT_EQ(out[99], 'x');
        EXPECT_EQ(create_hostcache_id(c.host, c.port, c.vrf, nullptr), c.key);
        EXPECT_EQ(traces(), lines(2, "cache id = " + c.key + "\n"));
    }
}

TEST_F(RequestRecord, PortIsTheLeadingNumber)
{
    EXPECT_EQ(port_of_service("123"), 123);
    EXPECT_EQ(port_of_service("80x"), 80);
    EXPECT_EQ(port_of_service("dns"), 0);
}
