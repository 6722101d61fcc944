/*
 * completion.cpp: handles a finished background job: stores its record in the cache, removes the job from the job list.
 */
#include <string.h>

#include "dnscache/cache/cache_store.h"
#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/jobs/job_list.h"
#include "dnscache/record_layout.h"
#include "dnscache/records/record_intake.h"
#include "platform/spawnlet.h"

static constexpr char traced_as[] = "dnscache_spawnletcb_job_done";

/* The older record wins. A partial chain counts, too: it shows that there is a record. */
static bool is_answered_already(const server_spawnlet_data_t *from_child)
{
    char key[sizeof from_child->serv_id] = "";
    copy_text(key, from_child->serv_id);
    struct addrinfo *chain = nullptr;
    const int rc = cache_find(key, &chain);
    if (chain == nullptr)
        return false;
    TRACE_HERE_AS(traced_as, "%s(%d):cache entry is already existing ret_code(%d)", rc);
    freeaddrinfo(chain);
    return true;
}

/* Returns false when out of memory. */
static bool store(const server_spawnlet_data_t *from_child)
{
    server_spawnlet_data_t *record = new_record_from_child(from_child);
    if (record == nullptr) {
        TRACE_AS(traced_as, "Malloc Failed in server_spawnletcb_job_done : %d\n",
                 static_cast<int>(sizeof(server_spawnlet_data_t)));
        return false;
    }
    TRACE_HERE_AS(traced_as, "%s(%d):Updating res_cache from async-result. Appending res to the res_list \n");
    cache_store(record);
    return true;
}

static void forget_job(uint32_t handle)
{
    const GList *place = nullptr;
    while (const server_addr_info *running = job_list_next(&place)) {
        if (running->job_handle != handle)
            continue;
        TRACE_HERE_AS(traced_as, "%s(%d):Spawnlet Handle Found in job_list.\n");
        TRACE_HERE_AS(traced_as, "%s(%d):Removing Job Handle from HDL List \n");
        job_list_remove(running);
        return;
    }
}

void dnscache_spawnletcb_job_done(uint32_t handle, uint32_t syserr, void *ret_info, uint32_t ret_info_size,
                                  int32_t ret_syserr)
{
    const errno_guard kept;
    TRACE_HERE("%s(%d):Handle 0x%x syserr \"%s\" ret_info_size %d  ret_syserr %d ret_info %lx\n", handle,
               errcode2str(syserr), static_cast<int>(ret_info_size), ret_syserr,
               reinterpret_cast<unsigned long>(ret_info));

    /* A job that was killed before it could answer brings no record, or an incomplete one. */
    const auto *from_child = static_cast<const server_spawnlet_data_t *>(ret_info);
    const bool is_whole = from_child != nullptr && ret_info_size >= sizeof *from_child;
    if (is_whole && !is_answered_already(from_child) && ret_syserr == 0 && !store(from_child))
        return;
    /* Called after store(): the refresh pass that store() may start must still count this job. */
    forget_job(handle);
}
