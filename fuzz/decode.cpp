/*
 * decode.cpp: a record of any bytes, decoded and dumped. The first byte says which malloc() fails, the record
 * follows. No bytes at all: no record.
 */
#include <netdb.h>
#include <string.h>

#include <vector>

#include "fuzz/input.h"
#include "fuzz/platform.h"

/* Reads all that a caller may read. */
static void check_node(const struct addrinfo &node, const server_spawnlet_data_t &record, int i)
{
    const dnscache_addrinfo_image &header = record.ai_hdr[i];
    const bool ipv6 = header.ai_family == AF_INET6;
    REQUIRE(node.ai_family == header.ai_family && node.ai_flags == header.ai_flags);
    REQUIRE(node.ai_socktype == header.ai_socktype && node.ai_protocol == header.ai_protocol);
    REQUIRE(node.ai_addrlen <= header.ai_addrlen && node.ai_addrlen <= (ipv6 ? 32 : 16));
    REQUIRE(memcmp(node.ai_addr, ipv6 ? record.addr6[i] : record.addr[i], node.ai_addrlen) == 0);
    if (node.ai_canonname == nullptr)
        return;
    const size_t length = strlen(node.ai_canonname);
    REQUIRE(length == strnlen(record.canonname[i], 64));
    REQUIRE(memcmp(node.ai_canonname, record.canonname[i], length) == 0);
}

static void check_chain(int rc, const struct addrinfo *chain, const server_spawnlet_data_t &record)
{
    const int wanted = record.num_entries > 4 ? 4 : record.num_entries < 0 ? 0 : record.num_entries;
    int count = 0;
    bool names_missing = false;
    for (; chain != nullptr; chain = chain->ai_next) {
        REQUIRE(count < wanted);
        names_missing |= chain->ai_canonname == nullptr && record.canonname[count][0] != '\0';
        check_node(*chain, record, count++);
    }
    if (rc == 0)
        REQUIRE(count == wanted && record.num_entries != 0 && !names_missing);
    else
        REQUIRE(rc == -1 && (wanted == 0 || count < wanted || names_missing));
}

/* With its texts terminated, as every record in the cache has them. */
static void dump(server_spawnlet_data_t *record)
{
    record->serv_name[sizeof record->serv_name - 1] = '\0';
    record->service[sizeof record->service - 1] = '\0';
    server_spawnlet_data_display(record);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    reset_world();
    struct addrinfo *chain = nullptr;
    if (size == 0) {
        REQUIRE(get_res_back(nullptr, &chain) == -1 && chain == nullptr);
        return 0;
    }
    server_spawnlet_data_t record = {};
    memcpy(&record, data + 1, size - 1 < sizeof record ? size - 1 : sizeof record);
    int rc;
    {
        std::vector<server_spawnlet_data_t> block(1, record);
        platform.failing_malloc = data[0];
        rc = get_res_back(block.data(), &chain);
        const bool failed = data[0] != 0 && platform.failing_malloc == 0;
        platform.failing_malloc = 0;
        REQUIRE(memcmp(block.data(), &record, sizeof record) == 0);
        REQUIRE((rc == 0) == (!failed && record.num_entries != 0));
        dump(block.data());
    }
    /* The record is gone, and the chain must not care. */
    check_chain(rc, chain, record);
    if (chain != nullptr)
        freeaddrinfo(chain);
    return 0;
}
