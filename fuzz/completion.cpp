/*
 * completion.cpp: completions with five arbitrary values, then the calls that use what they left in the cache. For
 * each, the input holds eight bytes of settings and a record, or only settings, which reuse the previous record.
 */
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dnscache/state.h"
#include "fuzz/input.h"
#include "fuzz/platform.h"

struct settings {
    uint8_t handle;
    uint8_t failing_malloc;
    uint8_t times;  /* repetitions, each with another name and handle */
    int8_t minutes; /* by which the clock moves */
    uint8_t refused;
    uint8_t result; /* bit 0: the body failed; 1: no buffer; 2: previous record; 3: job service failed */
    int8_t excess;  /* 13 times this is added to the size of the buffer */
    uint8_t then;   /* bit 0: refresh; 1: purge; 2: remove by name; 3: all background jobs end */
};

static void check_state()
{
    for (const GList *link = local_cache; link != nullptr; link = link->next) {
        const auto *record = static_cast<const server_spawnlet_data_t *>(link->data);
        REQUIRE(strnlen(record->serv_id, 524) < 524 && strnlen(record->serv_name, 512) < 512);
        REQUIRE(strnlen(record->service, 12) < 12 && record->num_entries >= 0);
    }
    if (local_cache != nullptr)
        server_spawnlet_data_display(static_cast<const server_spawnlet_data_t *>(local_cache->data));
    REQUIRE(g_list_length(local_cache) <= MAX_CACHE_ENTRIES);
    REQUIRE(running_jobs == static_cast<int32_t>(g_list_length(job_list)) && running_jobs <= MAX_SPAWNLETS);
    REQUIRE(memory.connected);
}

/* Reads all that a caller may read, then releases the chain. */
static void use_chain(struct addrinfo *chain)
{
    int count = 0;
    for (const struct addrinfo *node = chain; node != nullptr; node = node->ai_next, count++) {
        const auto *address = reinterpret_cast<const uint8_t *>(node->ai_addr);
        const std::vector<uint8_t> copy(address, address + node->ai_addrlen);
        REQUIRE(copy.size() <= 32);
        display_sockaddr(node->ai_addr);
        REQUIRE(node->ai_canonname == nullptr || strlen(node->ai_canonname) <= 64);
    }
    REQUIRE(count <= 4 && get_list_length(chain) == count);
    if (chain != nullptr)
        freeaddrinfo(chain);
}

static void look_up(const server_spawnlet_data_t &record)
{
    const struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
    check_local_cache(local_cache, record.serv_id, &chain);
    use_chain(chain);
    chain = nullptr;
    const int rc = getaddrinfo_async_mq3(record.serv_name, record.service, &hints, record.vrf, &chain);
    REQUIRE((rc == 0) == (chain != nullptr));
    use_chain(chain);
    add_entry_to_dns_cache(record.serv_name, record.service[0], record.vrf, nullptr);
}

static void complete(const settings &settings, uint32_t handle, server_spawnlet_data_t record)
{
    const auto size = static_cast<uint32_t>(int{sizeof record} + settings.excess * 13);
    std::vector<uint8_t> block(std::min<size_t>(size, sizeof record));
    memcpy(block.data(), &record, block.size());
    platform.blocking = {.syserr = (settings.result & 8) != 0 ? 0x501u : 0,
                         .ret_info = (settings.result & 2) != 0 ? nullptr : block.data(),
                         .ret_info_size = size,
                         .ret_syserr = -(settings.result & 1)};
    const memory_completion &result = platform.blocking;
    platform.failing_malloc = settings.failing_malloc;
    dnscache_spawnletcb_job_done(handle, result.syserr, result.ret_info, size, result.ret_syserr);
    record.serv_id[523] = record.serv_name[511] = record.service[11] = '\0';
    look_up(record);
    platform.failing_malloc = 0;
    check_state();
}

static void maintain(const settings &settings, const std::string &name)
{
    platform.now += settings.minutes * 60;
    if ((settings.then & 1) != 0)
        refresh_dns_cache();
    if ((settings.then & 2) != 0)
        remove_old_entries_from_local_cache();
    if ((settings.then & 4) != 0)
        remove_entry_from_dns_cache(name.c_str());
    for (uint32_t handle = 1; (settings.then & 8) != 0 && handle <= HANDLES; handle++)
        dnscache_spawnletcb_job_done(handle, 0x501, nullptr, 0, 0);
    check_state();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    reset_world();
    input in = {.at = data, .end = data + size, .generator = 0};
    server_spawnlet_data_t record = {};
    while (!in.is_empty()) {
        settings settings;
        in.fill(&settings, sizeof settings);
        platform.refused = settings.refused;
        if ((settings.result & 4) == 0)
            in.fill(&record, sizeof record);
        for (uint32_t i = 0; i <= settings.times % 80; i++) {
            complete(settings, settings.handle + i, record);
            record.serv_id[0] = record.serv_name[0] = static_cast<char>('0' + i);
        }
        maintain(settings, std::string(record.serv_name, strnlen(record.serv_name, 511)));
    }
    reset_world();
    return 0;
}
