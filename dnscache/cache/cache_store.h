/*
 * cache_store.h: how the rest of the library asks local_cache for an answer and stores one.
 */
#ifndef DNSCACHE_CACHE_CACHE_STORE_H
#define DNSCACHE_CACHE_CACHE_STORE_H

#include "dnscache/dnscache.h"

/* cache_find: check_local_cache() on local_cache. */
int cache_find(const char *key, struct addrinfo **res);

/* cache_store: set the record's time stamp and put the record at the head of local_cache, which owns it from now on. */
void cache_store(server_spawnlet_data_t *record);

#endif
