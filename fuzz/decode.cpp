/*
 * decode.cpp: decodes and dumps a record of arbitrary bytes. The first byte says which malloc() fails, the record
 * follows. An empty input also decodes NULL.
 */
#include <string>
#include <vector>

#include "dnscache/dnscache.h"
#include "fuzz/fuzz.h"

static void check_node(const struct addrinfo &node, const server_spawnlet_data_t &record, int i)
{
    const dnscache_addrinfo_image &header = record.ai_hdr[i];
    const bool ipv6 = header.ai_family == AF_INET6;
    const uint32_t slot = ipv6 ? 32 : 16;
    REQUIRE(node.ai_flags == header.ai_flags && node.ai_family == header.ai_family);
    REQUIRE(node.ai_socktype == header.ai_socktype && node.ai_protocol == header.ai_protocol);
    REQUIRE(node.ai_addrlen == std::min(header.ai_addrlen, slot));
    REQUIRE(memcmp(node.ai_addr, ipv6 ? record.addr6[i] : record.addr[i], slot) == 0);
}

/* Compares every byte that a caller may read. Returns what get_res_back() should. */
static int check_chain(const struct addrinfo *node, const server_spawnlet_data_t &record, int failing)
{
    for (int i = 0; i < std::min(record.num_entries, 4); i++, node = node->ai_next) {
        REQUIRE((node == nullptr) == (--failing == 0));
        if (node == nullptr)
            return -1;
        check_node(*node, record, i);
        const std::string name(record.canonname[i], strnlen(record.canonname[i], 64));
        const bool lacks_name = !name.empty() && --failing == 0;
        REQUIRE((node->ai_canonname == nullptr) == (name.empty() || lacks_name));
        REQUIRE(node->ai_canonname == nullptr || node->ai_canonname == name);
        REQUIRE(node->ai_next == nullptr || !lacks_name);
        if (lacks_name)
            return -1;
    }
    REQUIRE(node == nullptr);
    return record.num_entries == 0 ? -1 : 0;
}

void run_input(bytes_view input)
{
    struct addrinfo *chain = nullptr;
    REQUIRE(!input.empty() || get_res_back(nullptr, &chain) == -1);
    const int failing = take<uint8_t>(&input);
    auto record = take<server_spawnlet_data_t>(&input);
    record.serv_name[511] = record.service[11] = '\0'; /* as in every cached record */
    std::vector<server_spawnlet_data_t> block(1, record);
    failing_malloc = failing;
    const int rc = get_res_back(block.data(), &chain);
    failing_malloc = 0;
    server_spawnlet_data_display(block.data());
    REQUIRE(memcmp(block.data(), &record, sizeof record) == 0);
    /* Free the record: the chain must not point into it. */
    block = std::vector<server_spawnlet_data_t>();
    REQUIRE(rc == check_chain(chain, record, failing));
    if (chain != nullptr)
        freeaddrinfo(chain);
}
