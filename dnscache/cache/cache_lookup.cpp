/*
 * cache_lookup.cpp: finds the answer for a cache key and decodes it into a chain. Reads the cache, never changes it.
 */
#include <string.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"

static constexpr char traced_as[] = "check_local_cache";

static bool is_candidate(const server_spawnlet_data_t *record, const char *key)
{
    /* Compare the key first: most records differ there, and the status lies in another cache line. */
    return record != nullptr && strncmp(record->serv_id, key, sizeof record->serv_id - 1) == 0 &&
           record->status != ENTRY_INVALID;
}

/* FOUND and UNUSABLE end the search: an older record must not answer for a newer one that has no entries. */
enum decoding { FOUND, UNUSABLE, PARTIAL };

static decoding classify(int rc, const struct addrinfo *chain)
{
    if (rc == 0 && chain != nullptr) {
        TRACE_HERE_AS(traced_as, "%s(%d):get_res_back() ret_code is SUCCESS(%d) and res is allocated.", rc);
        return FOUND;
    }
    if (rc == 0) {
        TRACE_HERE_AS(
            traced_as,
            "%s(%d): get_res_back, returned with NULL res!!! though rt_code:%d(SUCCESS) ASSERT ASSERT ASSERT.",
            rc);
        return UNUSABLE;
    }
    if (chain == nullptr) {
        TRACE_HERE_AS(traced_as,
                      "%s(%d): get_res_back, returned with NULL res!!! rt_code:%d ASSERT ASSERT ASSERT.", rc);
        return UNUSABLE;
    }
    TRACE_HERE_AS(traced_as, "%s(%d):get_res_back() returned %d(error) but res in not null.", rc);
    return PARTIAL;
}

int check_local_cache(GList *list, const char *key, struct addrinfo **res)
{
    const errno_guard kept;
    TRACE_ENTER();
    TRACE("list length : %d\n", static_cast<int>(g_list_length(list)));
    TRACE("serv_id: %s\n", text_or_null(key));

    bool partial = false; /* *res holds part of a chain: decoding ran out of memory */
    for (const GList *link = list; link != nullptr; link = link->next) {
        auto *record = static_cast<server_spawnlet_data_t *>(link->data);
        if (!is_candidate(record, key))
            continue;
        TRACE("Entry Found\n");
        if (partial)
            freeaddrinfo(*res);
        const int rc = get_res_back(record, res);
        const decoding outcome = classify(rc, *res);
        if (outcome != PARTIAL)
            return outcome == FOUND ? 0 : -1;
        partial = true;
    }
    TRACE_HERE("%s(%d):Returning NULL res as there  is no match found in spawnlet_data_list(local_cache).");
    TRACE_EXIT();
    return -1;
}
