/*
 * platform.h: the memory platform, the clock and malloc(), all of which do what a target says. Nothing forks.
 */
#ifndef FUZZ_PLATFORM_H
#define FUZZ_PLATFORM_H

#include <stdint.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

/* So few that a handle is given to a second job while the first still runs. */
constexpr uint32_t HANDLES = 13;

struct scripted_platform {
    int64_t now;
    unsigned failing_malloc;    /* counts down; the malloc() that finds it at 1 fails */
    memory_completion blocking; /* of every blocking job */
    uint32_t refused;           /* bit i: background start i is refused, counted modulo 32 */
    uint32_t waits, starts;     /* blocking jobs run and background starts tried */
    uint32_t handles;           /* given so far: 1 to HANDLES, then 1 again */
    int32_t seconds;            /* time-out of the last job */
    server_addr_info request;   /* its request, as it was before the start */
};
extern scripted_platform platform;

/* reset_world: free what the library keeps; everything is as when the process started. */
void reset_world();

#endif
