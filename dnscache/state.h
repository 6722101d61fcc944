/*
 * state.h: everything that outlives a call, but for the debug log (trace.cpp) and the key buffer
 * (request_record.cpp). One set for the process, never reset. Not exported from the shared library.
 */
#ifndef DNSCACHE_STATE_H
#define DNSCACHE_STATE_H

#include <glib.h>
#include <stdint.h>

extern "C" {

/* Both lists own their data and grow only through g_list_check_and_prepend(), newest first. */
extern GList *local_cache; /* of server_spawnlet_data_t, at most MAX_CACHE_ENTRIES */
extern GList *job_list;    /* of server_addr_info, the running background jobs, at most MAX_SPAWNLETS */

extern int32_t running_jobs;     /* rises and falls with the length of job_list */
extern int32_t blocking_timeout; /* seconds that a lookup waits */
extern int32_t cache_timeout;    /* seconds that a record lives */
extern int32_t cache_initialised;
extern uint32_t async_queue; /* kept for who debugs a host */
}

#endif
