/*
 * cache_store.cpp: finds answers in local_cache, and stores new ones.
 */
#include "dnscache/cache/cache_store.h"

#include <time.h>

#include "dnscache/state.h"

int cache_find(const char *key, struct addrinfo **res)
{
    return check_local_cache(local_cache, key, res);
}

void cache_store(server_spawnlet_data_t *record)
{
    record->timestamp = static_cast<int32_t>(time(nullptr));
    local_cache = g_list_check_and_prepend(&local_cache, record, MAX_CACHE_ENTRIES);
}
