/*
 * state.h: all state that outlives a call, except the debug log (trace.cpp) and the key buffer (cache_key.cpp). One set
 * for the process, never reset, not exported from the shared library. Each comment names the files that change it; the
 * test abi.floors checks which files include this header.
 */
#ifndef DNSCACHE_STATE_H
#define DNSCACHE_STATE_H

#include <glib.h>
#include <stdint.h>

extern "C" {

/* Both lists own their data and grow only through g_list_check_and_prepend(), newest first. */
extern GList *local_cache; /* of server_spawnlet_data_t, at most MAX_CACHE_ENTRIES: cache/ */
extern GList *job_list;    /* of server_addr_info, the running jobs, at most MAX_SPAWNLETS: job_list.cpp */

extern int32_t running_jobs;      /* length of job_list: job_list.cpp */
extern int32_t blocking_timeout;  /* seconds that a lookup waits: setup.cpp */
extern int32_t cache_timeout;     /* seconds that a record lives: setup.cpp */
extern int32_t cache_initialised; /* 1 after dns_cache_init(): setup.cpp */
extern uint32_t async_queue;      /* for debugging only: setup.cpp */
}

#endif
