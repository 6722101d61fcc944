#include "fuzz/prediction.h"

std::string key_of(std::string_view host, int port, int vrf)
{
    return (std::string(host) + ":" + std::to_string(port) + ":" + std::to_string(vrf)).substr(0, 98);
}

int port_of(std::string_view service)
{
    const bool negative = service.starts_with('-');
    int port = 0;
    for (size_t i = negative; i < service.size() && service[i] >= '0' && service[i] <= '9'; i++)
        port = port * 10 + (service[i] - '0');
    return negative ? -port : port;
}

server_spawnlet_data_t taken_in(const void *buffer)
{
    server_spawnlet_data_t record;
    memcpy(&record, buffer, sizeof record);
    record.serv_id[523] = record.serv_name[511] = record.service[11] = '\0';
    record.num_entries = record.num_entries < 0 ? 0 : record.num_entries;
    return record;
}

static server_addr_info request_of(std::string_view host, std::string_view service,
                                   const dnscache_addrinfo_image &hints, int32_t vrf)
{
    server_addr_info request = {};
    set_text(request.serv_name, host);
    set_text(request.service, service);
    request.hints = hints;
    if (sizeof(void *) == 8)
        request.hints.ai_addr = request.hints.ai_canonname = request.hints.ai_next = 0;
    request.vrf = vrf;
    return request;
}

/* The newest candidate alone decides. */
const server_spawnlet_data_t *prediction::answer(std::string_view key, bool *has_candidate) const
{
    for (const server_spawnlet_data_t &record : cache) {
        if (record.status == ENTRY_INVALID || text_of(record.serv_id) != key)
            continue;
        if (has_candidate != nullptr)
            *has_candidate = true;
        return record.num_entries > 0 ? &record : nullptr;
    }
    return nullptr;
}

void prediction::drop(size_t index, event why)
{
    counts[why]++;
    cache.erase(cache.begin() + static_cast<long>(index));
}

void prediction::prepend(server_spawnlet_data_t record)
{
    if (cache.size() == 64) {
        counts[FULL_CACHE]++;
        refresh();
        if (cache.size() == 64)
            drop(63, EVICTION);
        else
            counts[REFRESH_IN_PREPEND]++;
    }
    cache.push_front(record);
}

void prediction::refresh()
{
    for (server_spawnlet_data_t &record : cache) {
        int64_t age = (now - record.timestamp) & 0xffffffff;
        if (age > INT32_MAX)
            age -= int64_t{1} << 32;
        if (age <= lifetime)
            continue;
        counts[now > INT32_MAX && record.timestamp > 0 ? EXPIRY_PAST_2038 : EXPIRY]++;
        record.status = ENTRY_INVALID;
        add(text_of(record.serv_name), port_of(text_of(record.service)), record.vrf, record.hints);
    }
    purge();
}

void prediction::purge()
{
    for (size_t i = cache.size(); i-- > 0;)
        if (cache[i].status != ENTRY_RESOLVED)
            drop(i, PURGED);
}

void prediction::remove(std::string_view name)
{
    for (size_t i = cache.size(); i-- > 0;)
        if (text_of(cache[i].serv_name) == name.substr(0, 511))
            drop(i, REMOVED);
}

int prediction::start(const server_addr_info &wanted, int32_t timeout_secs)
{
    if (jobs.size() == 10) {
        counts[FULL_JOBS]++;
        return -1;
    }
    request = wanted;
    seconds = timeout_secs;
    if ((refused >> starts++ % 32 & 1) != 0) {
        counts[REFUSED_START]++;
        return -1;
    }
    counts[START]++;
    jobs.push_front(wanted);
    jobs.front().job_handle = 1 + handles++ % HANDLES;
    return 0;
}

int prediction::add(std::string_view host, int port, int vrf, const dnscache_addrinfo_image &hints)
{
    if (answer(key_of(host, port, vrf)) != nullptr)
        return 0;
    const server_addr_info wanted = request_of(host, std::to_string(port).substr(0, 10), hints, vrf);
    for (const server_addr_info &job : jobs) {
        if (text_of(job.serv_name) == text_of(wanted.serv_name) && job.vrf == vrf &&
            text_of(job.service) == text_of(wanted.service)) {
            counts[ALREADY_RUNNING]++;
            return 0;
        }
    }
    return start(wanted, 0);
}

int prediction::look_up(std::string_view node, std::string_view service, const dnscache_addrinfo_image &hints,
                        int32_t vrf, const job_result &outcome, server_spawnlet_data_t *answered)
{
    if (const server_spawnlet_data_t *found = answer(key_of(node, port_of(service), vrf))) {
        counts[HIT]++;
        *answered = *found;
        return 0;
    }
    counts[MISS]++;
    waits++;
    seconds = blocking;
    request = request_of(node, service, hints, vrf);
    bool same_host = false;
    for (const server_addr_info &job : jobs)
        same_host |= text_of(job.serv_name) == text_of(request.serv_name);
    if (outcome.syserr != 0 && same_host) {
        counts[SAME_HOST]++;
        return static_cast<int>(outcome.syserr);
    }
    if (outcome.syserr != 0) {
        counts[FELL_BACK]++;
        return start(request, 300) == 0 ? -3 : -1;
    }
    if (outcome.ret_syserr != 0)
        return outcome.ret_syserr;
    if (outcome.ret_info == nullptr || outcome.ret_info_size != 1676)
        return -1;
    *answered = taken_in(outcome.ret_info);
    answered->status = ENTRY_RESOLVED;
    answered->timestamp = static_cast<int32_t>(now);
    if (answered->num_entries == 0)
        return -1;
    counts[RESOLVED]++;
    prepend(*answered);
    return 0;
}

void prediction::complete(uint32_t handle, const job_result &result)
{
    counts[COMPLETION]++;
    if (result.ret_info != nullptr && result.ret_info_size >= 1676) {
        server_spawnlet_data_t record = taken_in(result.ret_info);
        record.timestamp = static_cast<int32_t>(now);
        if (answer(text_of(record.serv_id)) != nullptr) {
            counts[COMPLETION_ANSWERED]++;
        } else if (result.ret_syserr == 0) {
            counts[COMPLETION_STORED]++;
            prepend(record);
        }
    }
    for (auto job = jobs.begin(); job != jobs.end(); ++job) {
        if (job->job_handle == handle) {
            jobs.erase(job);
            return;
        }
    }
    counts[COMPLETION_UNKNOWN]++;
}
