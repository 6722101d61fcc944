/*
 * lookup.cpp: the lookup. It asks the cache, then a child that it waits for, then starts a child in the background.
 *
 * The lookup owns the request record until a background job is started from it; then the job list owns it.
 */
#include <stdlib.h>
#include <string.h>

#include "dnscache/cache/cache_store.h"
#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/jobs/job_list.h"
#include "dnscache/jobs/job_start.h"
#include "dnscache/records/cache_key.h"
#include "dnscache/records/record_intake.h"
#include "dnscache/records/request_record.h"
#include "dnscache/state.h"

static constexpr char traced_as[] = "getaddrinfo_async_mq3";
static constexpr int JOB_IN_BACKGROUND = -3;

static void release_chain(struct addrinfo **res)
{
    if (*res != nullptr)
        freeaddrinfo(*res);
    *res = nullptr;
}

/* Decodes into a local pointer: a stale *res of the caller would look like a partial chain, and be released. */
static bool answered_by_cache(const char *node, const char *service, int32_t vrf, struct addrinfo **res)
{
    char key[512] = "";
    create_hostcache_id(node, port_of_service(service), vrf, key);
    struct addrinfo unwritten, *chain = &unwritten;
    const int rc = cache_find(key, &chain);
    if (chain == &unwritten)
        return false;
    if (rc != 0)
        release_chain(&chain);
    *res = chain;
    if (rc != 0)
        return false;
    TRACE_AS(traced_as, "Found in Local Cache\n");
    return true;
}

/* Ignores VRF and port: one slow host must not fill the list of background jobs. */
static bool is_host_running(const server_addr_info *request)
{
    bool running = false;
    const GList *place = nullptr;
    while (const server_addr_info *other = job_list_next(&place)) {
        if (strncmp(request->serv_name, other->serv_name, sizeof request->serv_name - 1) != 0)
            continue;
        TRACE_HERE_AS(traced_as, "%s(%d):Job Already Forked for server %s\n", request->serv_name);
        running = true;
    }
    return running;
}

static job_outcome run_blocking_job(server_addr_info *request, bool host_is_running, job_options *options)
{
    if (host_is_running)
        TRACE_AS(traced_as, "for server(%s):sync-job found - No cache entry \n", request->serv_name);
    else
        TRACE_AS(traced_as, "for server(%s):No cache entry - No sync-job\n", request->serv_name);
    TRACE_AS(traced_as, "trying to resolve using blocking spawnlet with timeout %d secs \n",
             blocking_timeout);

    const job_outcome outcome = start_blocking_job(traced_as, request, options);
    TRACE_HERE_AS(traced_as, "%s(%d):spawnlet_fork_fp:syserr:0x%x ret_syserr:0x%x str(syserr): %s\n",
                  outcome.syserr, static_cast<unsigned>(outcome.ret_syserr), errcode2str(outcome.syserr));
    return outcome;
}

/* Once the job has started, the job list owns the request: *request becomes NULL. */
static int go_on_in_background(server_addr_info **request, job_options *options)
{
    if (job_list_is_full()) {
        TRACE_AS(traced_as, "Running jobs have exceeded than MAX_SPAWNLETS, treating as not-resolvable.\n");
        return -1;
    }
    const uint32_t syserr = start_async_job(traced_as, *request, options, ASYNC_JOB_SECONDS);
    TRACE_AS(traced_as, "syserr for spawnlet_fork_fp_async : 0x%x\n", syserr);
    if (syserr != 0) {
        TRACE_AS(traced_as, "****** Freeing serv_ptr %p  ******** \n", static_cast<void *>(*request));
        return -1;
    }
    const char *server = (*request)->serv_name;
    TRACE_HERE_AS(traced_as, "%s(%d):Added resolver thread for server %s to Job HDL List \n", server);
    job_list_add(*request);
    TRACE_HERE_AS(traced_as, "%s(%d):Async Name Resolution Job Forked for server %s \n", server);
    *request = nullptr;
    return JOB_IN_BACKGROUND;
}

static int take_answer(const job_outcome &outcome, struct addrinfo **res)
{
    if (outcome.ret_info_size != sizeof(server_spawnlet_data_t) || outcome.ret_info == nullptr)
        return -1;
    server_spawnlet_data_t *record = new_record_from_child(outcome.ret_info);
    if (record == nullptr) {
        TRACE_AS(traced_as, "No Memory.. Malloc Failed\n");
        return -1;
    }
    record->status = ENTRY_RESOLVED;
    if (get_res_back(record, res) != 0) {
        TRACE_AS(traced_as, "get_res_back Failed in getaddrinfo_async\n");
        release_chain(res);
        free(record);
        return -1;
    }
    TRACE_AS(traced_as, "get_res_back Sucess . adding to list \n");
    cache_store(record);
    return 0;
}

static int take_outcome(const server_addr_info *request, const job_outcome &outcome, struct addrinfo **res)
{
    if (outcome.syserr != 0) {
        TRACE_AS(traced_as, "spawnlet fail with syserr(%d)\n", static_cast<int>(outcome.syserr));
        return static_cast<int>(outcome.syserr);
    }
    if (outcome.ret_syserr != 0) {
        TRACE_HERE_AS(traced_as, "%s(%d):Job Completed Successfully for server:%s but unable to resolve\n",
                      request->serv_name);
        TRACE_HERE_AS(traced_as, "%s(%d): DNS fail(%d:%s)\n", outcome.ret_syserr,
                      gai_strerror(outcome.ret_syserr));
        return outcome.ret_syserr;
    }
    return take_answer(outcome, res);
}

int getaddrinfo_async_mq3(const char *node, const char *service, const struct addrinfo *hints, int32_t vrf,
                          struct addrinfo **res)
{
    const errno_guard kept;
    if (service == nullptr || node == nullptr || hints == nullptr)
        return -1;
    if (answered_by_cache(node, service, vrf, res))
        return 0;

    job_options options = new_job_options();
    server_addr_info *request = new_request_record(traced_as, node, service, hints, vrf);
    if (request == nullptr)
        return -1;
    const bool host_is_running = is_host_running(request);
    const job_outcome outcome = run_blocking_job(request, host_is_running, &options);
    int result;
    if (outcome.syserr != 0 && !host_is_running)
        result = go_on_in_background(&request, &options);
    else
        result = take_outcome(request, outcome, res);
    free(request);
    if (result != 0 && *res == nullptr)
        TRACE_HERE("%s(%d):Returning NULL res!!!ASSERT ASSERT ASSERT.\n");
    return result;
}
