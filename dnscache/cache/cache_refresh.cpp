/*
 * cache_refresh.cpp: the refresh pass, the background resolution that it starts for expired records, and the purge at
 * its end. Only the refresh pass checks the age of records.
 *
 * One cycle of calls runs through this file: bounded prepend to the full cache (lists/bounded_list.cpp) -> refresh pass
 * -> job start -> bounded prepend to the job list. No step after the first adds a record to the cache.
 */
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "dnscache/cache/cache_store.h"
#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/jobs/job_list.h"
#include "dnscache/jobs/job_start.h"
#include "dnscache/lists/bounded_list.h"
#include "dnscache/record_layout.h"
#include "dnscache/records/cache_key.h"
#include "dnscache/records/request_record.h"
#include "dnscache/state.h"

static bool cache_answers(const char *key)
{
    struct addrinfo *chain = nullptr;
    const int rc = cache_find(key, &chain);
    if (chain != nullptr)
        freeaddrinfo(chain);
    return rc == 0;
}

static bool is_running(const server_addr_info *request)
{
    const GList *place = nullptr;
    while (const server_addr_info *running = job_list_next(&place))
        if (strncmp(running->serv_name, request->serv_name, sizeof request->serv_name - 1) == 0 &&
            running->vrf == request->vrf &&
            strncmp(running->service, request->service, sizeof request->service - 1) == 0)
            return true;
    return false;
}

/* Takes ownership of the request: puts it into the job list, or frees it. */
static int start_in_background(const char *traced_as, server_addr_info *request, job_options *options)
{
    const uint32_t syserr = start_async_job(traced_as, request, options, REFRESH_JOB_SECONDS);
    TRACE_AS(traced_as, "syserr for spawnlet_fork_fp_async : %d\n", static_cast<int>(syserr));
    if (syserr != 0) {
        free(request);
        return -1;
    }
    TRACE_AS(traced_as, "Added to Job HDL List \n");
    job_list_add(request);
    TRACE_AS(traced_as, "Async Name Resolution Job Forked \n");
    return 0;
}

int add_entry_to_dns_cache(const char *host, int port, int vrf, const struct addrinfo *hints)
{
    const errno_guard kept;
    job_options options = new_job_options();
    TRACE_ENTER();
    char key[sizeof server_spawnlet_data_t::serv_id] = "";
    create_hostcache_id(host, port, vrf, key);
    char service[sizeof server_addr_info::service] = "";
    snprintf(service, sizeof service - 1, "%d", port);
    if (cache_answers(key))
        return 0;

    TRACE("Adding Server : %s:%s \n", text_or_null(host), service);
    server_addr_info *request = new_request_record(__func__, host, service, hints, vrf);
    if (request == nullptr)
        return -1;
    if (is_running(request)) {
        TRACE_HERE("%s(%d):Job Already Forked for server:%s and service:%s!! returning 0.\n",
                   request->serv_name, request->service);
        free(request);
        return 0;
    }
    if (job_list_is_full()) {
        TRACE("Running jobs have exceeded than MAX_SPAWNLETS\n");
        free(request);
        return -1;
    }
    if (start_in_background(__func__, request, &options) != 0)
        return -1;
    TRACE_EXIT();
    return 0;
}

/*
 * Seconds since the record entered the cache, correct also when the 32-bit time wraps; negative if the time stamp is in
 * the future.
 */
static int32_t age_of(const server_spawnlet_data_t *record)
{
    return static_cast<int32_t>(static_cast<uint32_t>(time(nullptr)) -
                                static_cast<uint32_t>(record->timestamp));
}

static void resolve_again(const server_spawnlet_data_t *record)
{
    const struct addrinfo hints = hints_of_image(record->hints);
    add_entry_to_dns_cache(record->serv_name, port_of_service(record->service), record->vrf, &hints);
}

static void expire_if_old(const char *traced_as, server_spawnlet_data_t *record)
{
    const int32_t age = age_of(record);
    TRACE_AS(traced_as, "Timeout : %ld Cache timeout : %ld\n", long{age}, long{cache_timeout});
    if (age <= cache_timeout)
        return;
    record->status = ENTRY_INVALID;
    TRACE_AS(traced_as, "Timer Expired . Marking it as INVALID\n");
    /* Called after the record is marked: otherwise the cache would answer with this very record. */
    resolve_again(record);
}

void refresh_dns_cache(void)
{
    const errno_guard kept;
    TRACE_ENTER();
    for (GList *link = local_cache; link != nullptr; link = link->next) {
        if (link->data != nullptr)
            expire_if_old(__func__, static_cast<server_spawnlet_data_t *>(link->data));
    }
    remove_old_entries_from_local_cache();
    TRACE_EXIT();
}

static bool is_kept(const char *traced_as, const server_spawnlet_data_t *record)
{
    if (record == nullptr) {
        TRACE_AS(traced_as, "dns_inf is NULL\n");
        return false;
    }
    if (record->status == ENTRY_RESOLVED)
        return true;
    TRACE_AS(traced_as, "dns_inf->status : %d    dns_inf->serv_name: %s\n", record->status,
             record->serv_name);
    return false;
}

void remove_old_entries_from_local_cache(void)
{
    const errno_guard kept;
    TRACE_ENTER();
    if (local_cache != nullptr)
        TRACE("list length before remove: %d\n", static_cast<int>(g_list_length(local_cache)));
    for (GList *link = local_cache; link != nullptr;) {
        GList *next = link->next;
        if (!is_kept(__func__, static_cast<server_spawnlet_data_t *>(link->data)))
            remove_list_link(&local_cache, link);
        link = next;
    }
    if (local_cache != nullptr)
        TRACE("list length after remove: %d\n", static_cast<int>(g_list_length(local_cache)));
    TRACE_EXIT();
}
