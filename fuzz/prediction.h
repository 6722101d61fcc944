/*
 * prediction.h: what the library should do, said a second time: plain containers of its public records, and
 * nothing of its code.
 */
#ifndef FUZZ_PREDICTION_H
#define FUZZ_PREDICTION_H

#include <string.h>

#include <deque>
#include <string>
#include <string_view>

#include "fuzz/platform.h"

/* What happened, counted. */
enum event {
    HIT,
    MISS,
    RESOLVED,
    FELL_BACK,
    SAME_HOST,
    FULL_CACHE,
    REFRESH_IN_PREPEND,
    EVICTION,
    EXPIRY,
    EXPIRY_PAST_2038,
    PURGED,
    REMOVED,
    START,
    REFUSED_START,
    FULL_JOBS,
    ALREADY_RUNNING,
    COMPLETION,
    COMPLETION_UNKNOWN,
    COMPLETION_ANSWERED,
    COMPLETION_STORED,
    CHAIN_OUTLIVES_RECORD,
    EVENTS,
};

struct prediction {
    std::deque<server_spawnlet_data_t> cache; /* newest first */
    std::deque<server_addr_info> jobs;        /* likewise */
    int64_t now;
    int32_t lifetime = 60, blocking = 3;
    bool initialised;
    uint32_t refused, waits, starts, handles; /* as in scripted_platform */
    int32_t seconds;
    server_addr_info request; /* of the last job */
    unsigned long *counts;

    /* The record that answers a key, or NULL. */
    const server_spawnlet_data_t *answer(std::string_view key, bool *has_candidate = nullptr) const;
    void prepend(server_spawnlet_data_t record);
    void refresh();
    void purge();
    void remove(std::string_view name);
    int add(std::string_view host, int port, int vrf, const dnscache_addrinfo_image &hints);
    /* On 0, *answered is the record that the chain is decoded from. */
    int look_up(std::string_view node, std::string_view service, const dnscache_addrinfo_image &hints,
                int32_t vrf, const job_result &outcome, server_spawnlet_data_t *answered);
    void complete(uint32_t handle, const job_result &result);

  private:
    int start(const server_addr_info &wanted, int32_t timeout_secs);
    void drop(size_t index, event why);
};

std::string key_of(std::string_view host, int port, int vrf);
int port_of(std::string_view service);
/* A buffer of at least a record, of any bytes, as the cache holds it. */
server_spawnlet_data_t taken_in(const void *buffer);

/* A text field as a string, and back; cut to what fits. */
template <size_t size>
std::string_view text_of(const char (&field)[size])
{
    return {field, strnlen(field, size)};
}

template <size_t size>
void set_text(char (&field)[size], std::string_view text)
{
    memset(field, 0, size);
    text.copy(field, size - 1);
}

#endif
