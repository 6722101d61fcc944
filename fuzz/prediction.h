/*
 * prediction.h: a second implementation of what the library should do, with plain containers of its public records
 * and none of its code.
 */
#ifndef FUZZ_PREDICTION_H
#define FUZZ_PREDICTION_H

#include <string.h>

#include <deque>
#include <map>
#include <string>
#include <string_view>

#include "fuzz/platform.h"

template <size_t size>
std::string_view text_of(const char (&field)[size])
{
    return {field, strnlen(field, size)};
}

/* The field must be all zero. Text that is too long is cut. */
template <size_t size>
void set_text(char (&field)[size], std::string_view text)
{
    text.copy(field, size - 1);
}

inline int port_of(std::string_view service)
{
    const bool negative = service.starts_with('-');
    int port = 0;
    for (size_t i = negative; i < service.size() && service[i] >= '0' && service[i] <= '9'; i++)
        port = port * 10 + (service[i] - '0');
    return negative ? -port : port;
}

inline std::string key_of(std::string_view host, int port, int vrf)
{
    return (std::string(host) + ":" + std::to_string(port) + ":" + std::to_string(vrf)).substr(0, 98);
}

/* The record that the cache makes of any bytes that arrive. */
inline server_spawnlet_data_t as_cached(const void *bytes, int64_t now)
{
    server_spawnlet_data_t record;
    memcpy(&record, bytes, sizeof record);
    record.serv_id[523] = record.serv_name[511] = record.service[11] = '\0';
    record.num_entries = record.num_entries < 0 ? 0 : record.num_entries;
    record.timestamp = static_cast<int32_t>(now);
    return record;
}

inline server_addr_info request_of(std::string_view host, std::string_view service,
                                   const dnscache_addrinfo_image &hints, int32_t vrf)
{
    server_addr_info request = {};
    set_text(request.serv_name, host);
    set_text(request.service, service);
    request.hints = hints;
    if (sizeof(void *) == 8) /* 32-bit code copies every byte */
        request.hints.ai_addr = request.hints.ai_canonname = request.hints.ai_next = 0;
    request.vrf = vrf;
    return request;
}

struct prediction {
    std::deque<server_spawnlet_data_t> cache; /* newest first */
    std::deque<server_addr_info> jobs;        /* likewise */
    int64_t now = 1'700'000'000;
    int32_t lifetime = 60;
    int32_t blocking = 3;
    uint32_t refused, waits, starts, handles; /* these and the next two: see scripted_platform */
    int32_t seconds;
    server_addr_info request;
    size_t removed; /* records that have left the cache */

    static inline std::map<std::string_view, unsigned long> counts;

    /* The newest valid record with the key decides, even if it has no entries. */
    const server_spawnlet_data_t *candidate(std::string_view key) const
    {
        for (const server_spawnlet_data_t &record : cache)
            if (record.status != ENTRY_INVALID && text_of(record.serv_id) == key)
                return &record;
        return nullptr;
    }

    const server_spawnlet_data_t *answer(std::string_view key) const
    {
        const server_spawnlet_data_t *record = candidate(key);
        return record != nullptr && record->num_entries > 0 ? record : nullptr;
    }

    void drop_if(const char *why, auto condition)
    {
        const size_t dropped = std::erase_if(cache, condition);
        removed += dropped;
        if (dropped > 0)
            counts[why] += dropped;
    }

    void purge()
    {
        drop_if("purged", [](const auto &record) { return record.status != ENTRY_RESOLVED; });
    }

    void remove(std::string_view name)
    {
        drop_if("removed",
                [=](const auto &record) { return text_of(record.serv_name) == name.substr(0, 511); });
    }

    void refresh()
    {
        for (server_spawnlet_data_t &record : cache) {
            int64_t age = (now - record.timestamp) & 0xffffffff;
            if (age > INT32_MAX)
                age -= int64_t{1} << 32;
            if (age <= lifetime)
                continue;
            counts[now > INT32_MAX && record.timestamp > 0 ? "expired across 2038" : "expired"]++;
            record.status = ENTRY_INVALID;
            add(text_of(record.serv_name), port_of(text_of(record.service)), record.vrf, record.hints);
        }
        purge();
    }

    void prepend(const server_spawnlet_data_t &record)
    {
        if (cache.size() == 64) {
            refresh();
            counts[cache.size() == 64 ? "evictions" : "refreshes that freed space"]++;
            removed += cache.size() == 64;
            cache.resize(cache.size() == 64 ? 63 : cache.size());
        }
        cache.push_front(record);
    }

    int start(const server_addr_info &wanted, int32_t timeout_secs)
    {
        if (jobs.size() == 10) {
            counts["full job list"]++;
            return -1;
        }
        request = wanted;
        seconds = timeout_secs;
        const bool started = (refused >> starts++ % 32 & 1) == 0;
        counts[started ? "jobs" : "refused starts"]++;
        if (!started)
            return -1;
        jobs.push_front(wanted);
        jobs.front().job_handle = 1 + handles++ % HANDLES;
        return 0;
    }

    int add(std::string_view host, int port, int vrf, const dnscache_addrinfo_image &hints)
    {
        if (answer(key_of(host, port, vrf)) != nullptr)
            return 0;
        const server_addr_info wanted = request_of(host, std::to_string(port).substr(0, 10), hints, vrf);
        for (const server_addr_info &job : jobs) {
            if (text_of(job.serv_name) == text_of(wanted.serv_name) && job.vrf == vrf &&
                text_of(job.service) == text_of(wanted.service)) {
                counts["already running"]++;
                return 0;
            }
        }
        return start(wanted, 0);
    }

    /* If the result is 0, *answered receives the record from which the chain is decoded. */
    int look_up(std::string_view node, std::string_view service, const dnscache_addrinfo_image &hints,
                int32_t vrf, const memory_completion &outcome, server_spawnlet_data_t *answered)
    {
        const server_spawnlet_data_t *found = answer(key_of(node, port_of(service), vrf));
        counts[found != nullptr ? "hits" : "misses"]++;
        if (found != nullptr) {
            *answered = *found;
            return 0;
        }
        waits++;
        seconds = blocking;
        request = request_of(node, service, hints, vrf);
        if (outcome.syserr != 0) {
            for (const server_addr_info &job : jobs)
                if (text_of(job.serv_name) == text_of(request.serv_name))
                    return static_cast<int>(outcome.syserr);
            return start(request, 300) == 0 ? -3 : -1;
        }
        if (outcome.ret_syserr != 0)
            return outcome.ret_syserr;
        if (outcome.ret_info == nullptr || outcome.ret_info_size != 1676)
            return -1;
        *answered = as_cached(outcome.ret_info, now);
        answered->status = ENTRY_RESOLVED;
        if (answered->num_entries == 0)
            return -1;
        prepend(*answered);
        return 0;
    }

    void complete(uint32_t handle, const memory_completion &result)
    {
        if (result.ret_info != nullptr && result.ret_info_size >= 1676) {
            const server_spawnlet_data_t record = as_cached(result.ret_info, now);
            const bool is_answered = answer(text_of(record.serv_id)) != nullptr;
            counts[is_answered ? "completions of cached answers" : "completions of uncached answers"]++;
            if (!is_answered && result.ret_syserr == 0)
                prepend(record);
        }
        for (auto job = jobs.begin(); job != jobs.end(); ++job) {
            if (job->job_handle == handle) {
                counts["jobs completed"]++;
                jobs.erase(job);
                return;
            }
        }
        counts["completions of unknown handles"]++;
    }
};

#endif
