/*
 * setup.cpp: the two set-up calls.
 */
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/state.h"
#include "platform/spawnlet.h"

void dns_cache_init(uint32_t queue, int32_t timeout_secs)
{
    const errno_guard kept;
    if (cache_initialised != 0)
        return;
    async_queue = queue;
    /* The result is ignored: without a queue, lookups still work, but no completions arrive. */
    spawnlet_register_async_q(queue);
    cache_initialised = 1;
    if (timeout_secs != 0)
        blocking_timeout = timeout_secs;
}

void dns_cache_set_timeout(int32_t timeout_secs)
{
    cache_timeout = timeout_secs;
}
