/*
 * conformance.h: what a port brings to the conformance test: a name, a way to take completions, and what its jobs are.
 * linux.c and memory.c are two such ports. Link one with conformance.c and the platform layer, and run it.
 */
#ifndef PLATFORM_CONFORMANCE_CONFORMANCE_H
#define PLATFORM_CONFORMANCE_CONFORMANCE_H

#include <stdint.h>

/* The five values of a completion, which a host passes to dnscache_spawnletcb_job_done(). */
typedef struct {
    uint32_t handle;
    uint32_t syserr;
    void *ret_info;
    uint32_t ret_info_size;
    int32_t ret_syserr;
} conformance_completion;

typedef struct {
    const char *name;
    int jobs_are_processes; /* 0: what only a child can keep apart from its host is not checked */

    /* make the process's completion queue, for spawnlet_register_async_q() */
    uint32_t (*queue_create)(void);

    /* take the next completion, waiting for at most timeout_ms. 1 with *done, 0 without */
    int (*queue_next)(uint32_t queue, conformance_completion *done, int timeout_ms);

    /* switch every sink of the trace on */
    void (*trace_on)(void);

    /* jobs that are no processes cannot be kept waiting: let each take so long from now on. Else NULL */
    void (*jobs_take)(int seconds);
} conformance_port;

extern const conformance_port the_port;

#endif
