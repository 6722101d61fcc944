/*
 * platform.h: the memory platform, clock and malloc(), whose results a fuzz target sets. Nothing forks.
 */
#ifndef FUZZ_PLATFORM_H
#define FUZZ_PLATFORM_H

#include <stdint.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

/* There are few, so a new job can get the handle of a job that still runs. */
constexpr uint32_t HANDLES = 13;

struct scripted_platform {
    int64_t now;
    unsigned failing_malloc;    /* N: the N-th malloc() from now fails; 0: none */
    memory_completion blocking; /* the outcome of every blocking job */
    uint32_t refused;           /* bit i % 32: background start i is refused */
    uint32_t waits, starts;     /* blocking jobs run and background starts tried */
    uint32_t handles;           /* number given so far; they repeat from 1 to HANDLES */
    int32_t seconds;            /* timeout of the last job */
    server_addr_info request;   /* its request, copied before the start */
};
extern scripted_platform platform;

/* reset_world: free the lists of the library, and set everything as at the start of the process. */
void reset_world();

#endif
