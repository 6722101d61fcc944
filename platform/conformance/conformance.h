/*
 * conformance.h: what a port provides for the conformance test: a name, a function that takes completions, and
 * whether its jobs are processes. linux.c and memory.c are two such ports. Link one with conformance.c and the
 * platform layer, and run the program.
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
    int jobs_are_processes; /* 0: skip the checks that only a job in a child process can pass */

    /* create the process's completion queue, for spawnlet_register_async_q() */
    uint32_t (*queue_create)(void);

    /* take the next completion, and wait for it for at most timeout_ms. Return 1 with *done filled; 0 if none came */
    int (*queue_next)(uint32_t queue, conformance_completion *done, int timeout_ms);

    /* switch on every sink of the trace */
    void (*trace_on)(void);

    /* NULL if jobs are processes. Otherwise, instead of waiting, pretend that each job takes this long from now on */
    void (*jobs_take)(int seconds);
} conformance_port;

extern const conformance_port the_port;

#endif
