/*
 * completion.cpp: a finished background job. Its record enters the cache; the job leaves the job list.
 */
#include <string.h>
#include <time.h>

#include "dnscache/cache/bounded_list.h"
#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/record_layout.h"
#include "dnscache/records/record_intake.h"
#include "dnscache/state.h"
#include "platform/spawnlet.h"

static constexpr char handler[] = "dnscache_spawnletcb_job_done";

/* The older answer wins. Even part of a chain shows that there is one. */
static bool is_answered_already(const server_spawnlet_data_t *from_child)
{
    char key[sizeof from_child->serv_id] = "";
    copy_text(key, from_child->serv_id);
    struct addrinfo *chain = nullptr;
    const int rc = check_local_cache(local_cache, key, &chain);
    if (chain == nullptr)
        return false;
    TRACE_HERE_AS(handler, "%s(%d):cache entry is already existing ret_code(%d)", rc);
    freeaddrinfo(chain);
    return true;
}

/* false: out of memory. */
static bool store(const server_spawnlet_data_t *from_child)
{
    server_spawnlet_data_t *record = new_record_from_child(from_child);
    if (record == nullptr) {
        TRACE_AS(handler, "Malloc Failed in server_spawnletcb_job_done : %d\n",
                 static_cast<int>(sizeof(server_spawnlet_data_t)));
        return false;
    }
    TRACE_HERE_AS(handler, "%s(%d):Updating res_cache from async-result. Appending res to the res_list \n");
    record->timestamp = static_cast<int32_t>(time(nullptr));
    /* The record is the cache's from here on. */
    local_cache = g_list_check_and_prepend(&local_cache, record, MAX_CACHE_ENTRIES);
    return true;
}

static void forget_job(uint32_t handle)
{
    for (GList *link = job_list; link != nullptr; link = link->next) {
        const auto *job = static_cast<const server_addr_info *>(link->data);
        if (job == nullptr || job->job_handle != handle)
            continue;
        TRACE_HERE_AS(handler, "%s(%d):Spawnlet Handle Found in job_list.\n");
        TRACE_HERE_AS(handler, "%s(%d):Removing Job Handle from HDL List \n");
        remove_list_link(&job_list, link);
        running_jobs--;
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

    /* A job that was ended before it could answer brings no record, or a torn one. */
    const auto *from_child = static_cast<const server_spawnlet_data_t *>(ret_info);
    const bool is_whole = from_child != nullptr && ret_info_size >= sizeof *from_child;
    if (is_whole && !is_answered_already(from_child) && ret_syserr == 0 && !store(from_child))
        return;
    /* After the insertion, so that a refresh pass which it sets off still counts this job. */
    forget_job(handle);
}
