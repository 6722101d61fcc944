/*
 * cache_store.h: finds answers in local_cache and stores new ones. cache_store() replaces no record: the completion
 * (frontend/completion.cpp) decides whether an older record wins.
 */
#ifndef DNSCACHE_CACHE_CACHE_STORE_H
#define DNSCACHE_CACHE_CACHE_STORE_H

#include "dnscache/dnscache.h"

/* cache_find: call check_local_cache() for local_cache. */
int cache_find(const char *key, struct addrinfo **res);

/* cache_store: set the record's time stamp and put the record at the head of local_cache, which owns it from now on. */
void cache_store(server_spawnlet_data_t *record);

#endif
