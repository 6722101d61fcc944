/*
 * cache_removal.cpp: removes the records of one host from the cache, with any port, VRF and status.
 */
#include <string.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/lists/bounded_list.h"
#include "dnscache/state.h"

static bool is_of_server(const server_spawnlet_data_t *record, const char *name)
{
    return record != nullptr && strncmp(record->serv_name, name, sizeof record->serv_name - 1) == 0;
}

void remove_entry_from_dns_cache(const char *name)
{
    const errno_guard kept;
    TRACE_ENTER();
    TRACE("Marking Server : %s \n", text_or_null(name));
    if (local_cache == nullptr)
        TRACE("list: NULL\n");
    for (GList *link = local_cache; link != nullptr;) {
        GList *next = link->next;
        if (is_of_server(static_cast<server_spawnlet_data_t *>(link->data), name)) {
            TRACE("Server Found : %s\n", name);
            remove_list_link(&local_cache, link);
        }
        link = next;
    }
    TRACE_EXIT();
}
