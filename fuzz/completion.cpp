/*
 * completion.cpp: completions with five arbitrary values, then the calls that use what they left in the cache. For
 * each, the input holds eight bytes of settings and a record, or only settings, which reuse the previous record.
 */
#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "fuzz/fuzz.h"
#include "platform/memory/memory_platform.h"

static struct {
    uint8_t handle;
    uint8_t failing_malloc;
    uint8_t times;   /* repetitions, each with another name and handle */
    int8_t lifetime; /* in seconds; if it is negative, a refresh pass expires every record */
    uint8_t refused; /* each start takes the next bit, cyclically; 1: refused if in the background */
    uint8_t result;  /* bit 0: the body failed; 1: no buffer; 2: previous record; 3: job service failed */
    int8_t excess;   /* 13 times this is added to the size of the buffer */
    uint8_t then;    /* bit 0: refresh; 1: purge; 2: remove by name; 3: all background jobs end */
} settings;

static memory_completion blocking; /* the outcome of every blocking job */

/* Gives out few handles, so a new job can get the handle of a job that still runs. */
static uint32_t start_job(memory_job *job)
{
    job->outcome = &blocking;
    memory.next_handle %= 13;
    settings.refused = static_cast<uint8_t>(settings.refused << 1 | settings.refused >> 7);
    return job->in_background && (settings.refused & 1) != 0 ? 0x503 : 0;
}

static void check_state()
{
    for (const GList *link = local_cache; link != nullptr; link = link->next) {
        const auto *record = static_cast<const server_spawnlet_data_t *>(link->data);
        REQUIRE(strnlen(record->serv_id, 524) < 524 && strnlen(record->serv_name, 512) < 512);
        REQUIRE(strnlen(record->service, 12) < 12 && record->num_entries >= 0);
    }
    REQUIRE(g_list_length(local_cache) <= MAX_CACHE_ENTRIES);
    REQUIRE(running_jobs == static_cast<int32_t>(g_list_length(job_list)) && running_jobs <= MAX_SPAWNLETS);
}

/* Reads every byte that a caller may read, after the record is gone: the chain must not point into it. */
static void decode(server_spawnlet_data_t record)
{
    const server_spawnlet_data_t copy = record;
    struct addrinfo *chain = nullptr;
    server_spawnlet_data_display(&record);
    failing_malloc = settings.failing_malloc;
    const int rc = get_res_back(&record, &chain);
    failing_malloc = 0;
    memset(&record, 0, sizeof record);
    int count = 0;
    for (const struct addrinfo *node = chain; node != nullptr; node = node->ai_next, count++) {
        const bool ipv6 = node->ai_family == AF_INET6;
        const size_t slot = ipv6 ? 32 : 16;
        REQUIRE(node->ai_addrlen <= slot);
        REQUIRE(memcmp(node->ai_addr, ipv6 ? copy.addr6[count] : copy.addr[count], slot) == 0);
        REQUIRE(node->ai_canonname == nullptr || strlen(node->ai_canonname) <= 64);
    }
    REQUIRE(count <= 4 && (rc == 0 || settings.failing_malloc > 0 || copy.num_entries == 0));
    if (chain != nullptr)
        freeaddrinfo(chain);
}

/* A lookup in the foreground gets the same five values. */
static void complete_and_look_up(uint32_t handle, server_spawnlet_data_t record)
{
    const auto size = static_cast<uint32_t>(int{sizeof record} + settings.excess * 13);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    std::vector<uint8_t> block(bytes, bytes + std::min<size_t>(size, sizeof record));
    record.serv_name[511] = record.service[11] = '\0';
    decode(record);
    blocking = {.syserr = (settings.result & 8) != 0 ? 0x501u : 0,
                .ret_info = (settings.result & 2) != 0 ? nullptr : block.data(),
                .ret_info_size = size,
                .ret_syserr = -(settings.result & 1)};
    failing_malloc = settings.failing_malloc;
    dnscache_spawnletcb_job_done(handle, blocking.syserr, blocking.ret_info, size, blocking.ret_syserr);
    const struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
    const int rc = getaddrinfo_async_mq3(record.serv_name, record.service, &hints, record.vrf, &chain);
    REQUIRE((rc == 0) == (chain != nullptr));
    if (chain != nullptr)
        freeaddrinfo(chain);
    add_entry_to_dns_cache(record.serv_name, record.service[0], record.vrf, nullptr);
    failing_malloc = 0;
    check_state();
}

static void run_input(bytes_view input)
{
    destroy_dns_cache(local_cache);
    destroy_dns_cache(job_list);
    local_cache = job_list = nullptr;
    running_jobs = 0;
    memory_reset();
    memory.jobs_never_end = 1;
    memory.on_start = start_job;
    server_spawnlet_data_t record = {};
    while (!input.empty()) {
        settings = take<decltype(settings)>(&input);
        dns_cache_set_timeout(settings.lifetime);
        if ((settings.result & 4) == 0)
            record = take<server_spawnlet_data_t>(&input);
        for (uint32_t i = 0; i <= settings.times % 80; i++) {
            complete_and_look_up(settings.handle + i, record);
            record.serv_id[0] = record.serv_name[0] = static_cast<char>('0' + i);
        }
        record.serv_name[511] = '\0';
        if ((settings.then & 1) != 0)
            refresh_dns_cache();
        if ((settings.then & 2) != 0)
            remove_old_entries_from_local_cache();
        if ((settings.then & 4) != 0)
            remove_entry_from_dns_cache(record.serv_name);
        for (int i = running_jobs; (settings.then & 8) != 0 && i > 0; i--) {
            const auto *job = static_cast<const server_addr_info *>(job_list->data);
            dnscache_spawnletcb_job_done(job->job_handle, 0x501, nullptr, 0, 0);
        }
        check_state();
    }
}
