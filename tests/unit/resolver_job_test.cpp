#include <arpa/inet.h>
#include <netdb.h>
#include <string.h>

#include "tests/support/fakes.h"

class ResolverJob : public world_test
{
  protected:
    /* Appends a node, address and all in one block, as the C library does. */
    void answers(const char *address, const char *canonical = nullptr)
    {
        const server_spawnlet_data_t record = a_record({.addresses = {address}});
        struct addrinfo *decoded = nullptr;
        server_spawnlet_data_t copy = record;
        ASSERT_EQ(get_res_back(&copy, &decoded), 0);
        decoded->ai_canonname =
            canonical != nullptr ? static_cast<char *>(malloc(strlen(canonical) + 1)) : nullptr;
        if (canonical != nullptr)
            memcpy(decoded->ai_canonname, canonical, strlen(canonical) + 1);
        struct addrinfo **tail = &fake.resolver_answer;
        while (*tail != nullptr)
            tail = &(*tail)->ai_next;
        *tail = decoded;
    }

    int resolve(const char *host = "ntp1", const char *service = "123")
    {
        struct addrinfo hints = {};
        hints.ai_family = AF_INET6; /* restricts nothing */
        server_addr_info request;
        server_addr_init(host, service, &hints, 3, &request);
        fake.log.clear();
        const int result = resolve_server_hostname(&request);
        if (fake.handed_back.size() == sizeof entry)
            memcpy(&entry, fake.handed_back.data(), sizeof entry);
        return result;
    }

    server_spawnlet_data_t entry = {};
};

TEST_F(ResolverJob, HandsBackWhatTheResolverFound)
{
    answers("192.0.2.1", "ntp1.example");
    answers("2001:db8::5", "");
    fake.now = 4242;
    EXPECT_EQ(resolve(), 0);
    EXPECT_EQ(calls(), (lines{"rtctx_init", "bind 3", "resolve ntp1 123", "done 1676", "rtctx_close"}));

    server_spawnlet_data_t expected = a_record({.stamp = 4242, .addresses = {"192.0.2.1", "2001:db8::5"}});
    expected.hints.ai_family = AF_INET6;
    strcpy(expected.canonname[0], "ntp1.example");
    EXPECT_EQ(bytes_of(entry), bytes_of(expected));
    EXPECT_EQ(fake.handed_back.size(), 1676u);

    const lines all = traces();
    const lines head(all.begin(), all.begin() + 6);
    EXPECT_EQ(head, (lines{"resolve_server_hostname : server_addr_info #\n",
                           "resolve_server_hostname : ntp1 service : 123 vrf : 3\n",
                           "resolve_server_hostname : entry.serv_name ntp1\n",
                           "resolve_server_hostname : entry.service 123\n", "cache id = ntp1:123:3\n",
                           "IPV6 address : sizeof(sockaddr_in6_yolt) : 32 \n"}));
    EXPECT_EQ(all[6], "number of entries : 2\n");
    EXPECT_EQ(all.back(), "***** getaddrinfo : SUCCESSS :1676 ****** \n");
}

TEST_F(ResolverJob, KeepsTheFirstFourAnswers)
{
    for (const char *address : {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6"})
        answers(address);
    EXPECT_EQ(resolve(), 0);
    EXPECT_EQ(entry.num_entries, 4);
    EXPECT_EQ(entry.addr[3][7], 4); /* last byte of the fourth address */
    EXPECT_EQ(logged("P:resolve_server_hostname(").size(), 1u);
    EXPECT_EQ(traces()[5],
              "resolve_server_hostname(#) more dns entries/host(6) received than Supported(4)\n");
}

TEST_F(ResolverJob, CutsALongCanonicalName)
{
    const std::string name(100, 'c');
    answers("192.0.2.1", name.c_str());
    EXPECT_EQ(resolve(), 0);
    EXPECT_EQ(entry.canonname[0], name.substr(0, 64));
    EXPECT_EQ(traces()[5], "canonname_len : received(100) morethan allowed(64) \n");
}

TEST_F(ResolverJob, CopiesNoMoreThanAnAddressHas)
{
    answers("192.0.2.1");
    fake.resolver_answer->ai_addrlen = 6;
    EXPECT_EQ(resolve(), 0);
    EXPECT_EQ(entry.addr[0][5], 0);
    EXPECT_EQ(entry.addr[0][6], 0); /* third byte of the address: beyond the length */
    EXPECT_EQ(entry.addr[0][4], 192);
}

TEST_F(ResolverJob, FailureIsARecordOfItsStatusOnly)
{
    fake.rtctx_result = 0; /* goes on regardless */
    fake.resolver_result = EAI_NONAME;
    EXPECT_EQ(resolve(), EAI_NONAME);
    server_spawnlet_data_t expected = {};
    expected.status = ENTRY_FAILED;
    EXPECT_EQ(bytes_of(entry), bytes_of(expected));
    EXPECT_EQ(calls(), (lines{"rtctx_init", "bind 3", "resolve ntp1 123", "done 1676", "rtctx_close"}));
    EXPECT_EQ(traces(), (lines{"resolve_server_hostname : server_addr_info #\n",
                               "resolve_server_hostname(#): rtctx_api_init fail\n",
                               "resolve_server_hostname : ntp1 service : 123 vrf : 3\n",
                               " resolve_server_hostname failure : Name or service not known \n"}));
}

TEST_F(ResolverJob, AnEmptyAnswerIsNotResolvedAndNotDumped)
{
    EXPECT_EQ(resolve(), 0);
    server_spawnlet_data_t expected = a_record({.status = ENTRY_EMPTY, .stamp = 0, .addresses = {}});
    expected.hints.ai_family = AF_INET6;
    EXPECT_EQ(bytes_of(entry), bytes_of(expected));
    EXPECT_EQ(logged("P:number of entries").size(), 0u);
}

TEST_F(ResolverJob, APositiveResultHandsNothingBack)
{
    fake.resolver_result = 5;
    fake.history_on = true;
    EXPECT_EQ(resolve(), 0);
    EXPECT_EQ(calls(), (lines{"rtctx_init", "bind 3", "resolve ntp1 123", "rtctx_close"}));
    EXPECT_EQ(traces().back(), "***** Impossilbe: resolve_server_hostname  SUCCESSS :****** \n");
    EXPECT_EQ(logged("H:Exiting").size(), 0u);
}
