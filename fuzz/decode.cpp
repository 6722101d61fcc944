/*
 * decode.cpp: decodes and dumps a record of arbitrary bytes. The first byte says which malloc() fails, the record
 * follows. An empty input also decodes NULL.
 */
#include <string>

#include "dnscache/dnscache.h"
#include "fuzz/fuzz.h"

/* Compares every byte that a caller may read. */
static void check_node(const struct addrinfo &node, const server_spawnlet_data_t &record, int i)
{
    const bool ipv6 = node.ai_family == AF_INET6;
    const uint32_t slot = ipv6 ? 32 : 16;
    REQUIRE(memcmp(&node, &record.ai_hdr[i], offsetof(struct addrinfo, ai_addrlen)) == 0);
    REQUIRE(node.ai_addrlen == std::min(record.ai_hdr[i].ai_addrlen, slot));
    REQUIRE(memcmp(node.ai_addr, ipv6 ? record.addr6[i] : record.addr[i], slot) == 0);
    const std::string name(record.canonname[i], strnlen(record.canonname[i], 64));
    REQUIRE(node.ai_canonname == nullptr || (!name.empty() && node.ai_canonname == name));
}

static void run_input(bytes_view input)
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
    int count = 0;
    for (const struct addrinfo *node = chain; node != nullptr; node = node->ai_next)
        check_node(*node, record, count++);
    REQUIRE(rc == 0 ? count == std::clamp(record.num_entries, 0, 4) : failing > 0 || record.num_entries == 0);
    if (chain != nullptr)
        freeaddrinfo(chain);
}
