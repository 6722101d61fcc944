/*
 * decode.cpp: decodes and dumps a record of arbitrary bytes. The first byte says which malloc() fails, the record
 * follows. An empty input also decodes NULL.
 */
#include <netdb.h>

#include <algorithm>
#include <vector>

#include "fuzz/chain.h"
#include "fuzz/input.h"
#include "fuzz/platform.h"

/* If memory ran out while the chain was built, its last node may lack the canonical name. */
static void check_partial(const struct addrinfo *chain, server_spawnlet_data_t record)
{
    const int wanted = std::clamp(record.num_entries, 0, 4);
    const int count = get_list_length(const_cast<struct addrinfo *>(chain));
    const struct addrinfo *last = chain;
    while (last != nullptr && last->ai_next != nullptr)
        last = last->ai_next;
    REQUIRE(count <= wanted);
    if (last != nullptr && last->ai_canonname == nullptr)
        record.canonname[count - 1][0] = '\0';
    else
        REQUIRE(count < wanted);
    REQUIRE(matching_length(chain, record) == count);
}

/* Terminates the texts first, as they are in every cached record. */
static void dump(server_spawnlet_data_t record)
{
    record.serv_name[511] = record.service[11] = '\0';
    server_spawnlet_data_display(&record);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    reset_world();
    input in = {.at = data, .end = data + size, .generator = 0};
    struct addrinfo *chain = nullptr;
    REQUIRE(size != 0 || get_res_back(nullptr, &chain) == -1);
    const uint8_t failing = in.byte();
    server_spawnlet_data_t record;
    in.fill(&record, sizeof record);
    std::vector<server_spawnlet_data_t> block(1, record);
    platform.failing_malloc = failing;
    const int rc = get_res_back(block.data(), &chain);
    const bool failed = failing != 0 && platform.failing_malloc == 0;
    platform.failing_malloc = 0;
    dump(block[0]);
    REQUIRE(memcmp(block.data(), &record, sizeof record) == 0);
    /* Free the record: the chain must not point into it. */
    block = std::vector<server_spawnlet_data_t>();

    REQUIRE(rc == (failed || record.num_entries == 0 ? -1 : 0));
    if (failed)
        check_partial(chain, record);
    else
        REQUIRE(matching_length(chain, record) == std::clamp(record.num_entries, 0, 4));
    if (chain != nullptr)
        freeaddrinfo(chain);
    return 0;
}
