/*
 * bounded_list.cpp: lists that own their data, newest first, and never exceed their limit.
 *
 * One cycle of calls starts here and can end here: bounded prepend to the full cache -> refresh pass
 * (cache/cache_refresh.cpp) -> job start -> bounded prepend to the job list. It nests no deeper, because only the limit
 * of the cache starts a refresh pass.
 */
#include "dnscache/lists/bounded_list.h"

#include <stdlib.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"

void free_node(void *data)
{
    free(data);
}

void remove_list_link(GList **list, GList *link)
{
    *list = g_list_remove_link(*list, link);
    free_node(link->data);
    link->data = nullptr;
    g_list_free_1(link);
}

static bool is_full(GList *list, int limit)
{
    return static_cast<int>(g_list_length(list)) >= limit;
}

GList *g_list_check_and_prepend(GList **list, void *data, int limit)
{
    const errno_guard kept;
    if (list == nullptr) {
        TRACE_HERE("%s(%d) list NULL\n");
        return nullptr;
    }
    if (data == nullptr) {
        TRACE_HERE("%s(%d) data NULL\n");
        return *list;
    }
    TRACE("list_len = %d\n", static_cast<int>(g_list_length(*list)));
    if (limit > 0 && is_full(*list, limit)) {
        TRACE("Cache Size Exceeded.. Flushing Entries\n");
        if (limit == MAX_CACHE_ENTRIES)
            refresh_dns_cache();
        if (is_full(*list, limit))
            remove_list_link(list, g_list_last(*list));
    }
    /* The new element goes in last, so that neither the refresh pass nor the eviction sees it. */
    return g_list_prepend(*list, data);
}

static void free_element(void *data, void *)
{
    free_node(data);
}

int destroy_dns_cache(GList *list)
{
    g_list_foreach(list, free_element, nullptr);
    g_list_free(list);
    return 0;
}
