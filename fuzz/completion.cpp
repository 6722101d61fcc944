/*
 * completion.cpp: completions whose five values are all hostile, and everything that then meets what they left in
 * the cache. Eight bytes of settings and a record each; or the record before, once more under other names.
 */
#include <string.h>

#include <algorithm>
#include <vector>

#include "dnscache/state.h"
#include "fuzz/input.h"
#include "fuzz/platform.h"

struct settings {
    uint8_t handle;
    uint8_t failing_malloc;
    uint8_t times; /* how often, each time under another name */
    uint8_t clock; /* in minutes, signed */
    uint8_t refused;
    uint8_t
        result;   /* bit 0: the body failed; 1: no buffer; 2: the record before; 3: the job service failed */
    uint8_t size; /* 0: a record; else so many bytes more, or fewer */
    uint8_t then; /* bit 0: refresh; 1: purge; 2: remove by name; 3: forget all background jobs */
};

template <size_t size>
static bool is_terminated(const char (&field)[size])
{
    return memchr(field, '\0', size) != nullptr;
}

static void check_state()
{
    for (const GList *link = local_cache; link != nullptr; link = link->next) {
        const auto *record = static_cast<const server_spawnlet_data_t *>(link->data);
        REQUIRE(is_terminated(record->serv_id) && is_terminated(record->serv_name));
        REQUIRE(is_terminated(record->service) && record->num_entries >= 0);
        server_spawnlet_data_display(record);
    }
    REQUIRE(g_list_length(local_cache) <= MAX_CACHE_ENTRIES);
    REQUIRE(running_jobs == static_cast<int32_t>(g_list_length(job_list)) && running_jobs <= MAX_SPAWNLETS);
    REQUIRE(platform.connected);
}

/* Touches what a caller may touch. */
static void use_chain(struct addrinfo *chain)
{
    uint8_t sum = 0;
    int count = 0;
    for (const struct addrinfo *node = chain; node != nullptr; node = node->ai_next, count++) {
        for (socklen_t i = 0; i < node->ai_addrlen; i++)
            sum ^= reinterpret_cast<const uint8_t *>(node->ai_addr)[i];
        display_sockaddr(node->ai_addr);
        REQUIRE(node->ai_canonname == nullptr || strlen(node->ai_canonname) <= 64);
    }
    printf("%d", sum);
    REQUIRE(count <= 4 && get_list_length(chain) == count);
    display_ip_addrs(chain);
    if (chain != nullptr)
        freeaddrinfo(chain);
}

static void look_up(server_spawnlet_data_t record)
{
    record.serv_id[sizeof record.serv_id - 1] = '\0';
    record.serv_name[sizeof record.serv_name - 1] = '\0';
    record.service[sizeof record.service - 1] = '\0';
    struct addrinfo *chain = nullptr;
    check_local_cache(local_cache, record.serv_id, &chain);
    use_chain(chain);
    const struct addrinfo hints = {};
    chain = nullptr;
    const int rc = getaddrinfo_async_mq3(record.serv_name, record.service, &hints, record.vrf, &chain);
    REQUIRE((rc == 0) == (chain != nullptr));
    use_chain(chain);
    add_entry_to_dns_cache(record.serv_name, record.service[0], record.vrf, nullptr);
}

static void complete(const settings &settings, uint32_t handle, const server_spawnlet_data_t &record)
{
    const uint32_t size =
        static_cast<uint32_t>(sizeof record) + static_cast<uint32_t>(static_cast<int8_t>(settings.size) * 14);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    std::vector<uint8_t> block(bytes, bytes + std::min<size_t>(size, sizeof record));
    void *buffer = (settings.result & 2) != 0 ? nullptr : block.data();
    const uint32_t syserr = (settings.result & 8) != 0 ? 0x501 : 0;
    platform.blocking = {syserr, buffer, size, -(settings.result & 1)};
    platform.failing_malloc = settings.failing_malloc;
    dnscache_spawnletcb_job_done(handle, syserr, buffer, size, -(settings.result & 1));
    look_up(record);
    platform.failing_malloc = 0;
    check_state();
}

static void maintain(const settings &settings, server_spawnlet_data_t *record)
{
    platform.now += static_cast<int8_t>(settings.clock) * 60;
    record->serv_name[sizeof record->serv_name - 1] = '\0';
    if ((settings.then & 1) != 0)
        refresh_dns_cache();
    if ((settings.then & 2) != 0)
        remove_old_entries_from_local_cache();
    if ((settings.then & 4) != 0)
        remove_entry_from_dns_cache(record->serv_name);
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
        maintain(settings, &record);
    }
    reset_world();
    return 0;
}
