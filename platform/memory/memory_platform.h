/*
 * memory_platform.h: a platform layer without processes. Tests of the library and of its hosts link it, and it is
 * an example of the least that a port has to implement. A job runs in the calling process; a background job runs
 * when its completion is taken. `memory` decides how long jobs take and how they end, so the same calls always have
 * the same results. C11 and C++20.
 *
 * Limits, since there are no processes: a body that crashes or blocks does so in the host, a body prints to the
 * host's own streams, and a VRF is a number that getaddrinfo() does not know. To script answers, link your own
 * getaddrinfo().
 */
#ifndef PLATFORM_MEMORY_MEMORY_PLATFORM_H
#define PLATFORM_MEMORY_MEMORY_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include "platform/spawnlet.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MEMORY_JOBS_MAX 16       /* background jobs whose completion has not been taken */
#define MEMORY_HANDBACK_MAX 4096 /* bytes that one spawnlet_done() takes */

/* Codes of the job service. errcode2str() has their texts. */
enum {
    MEMORY_JOB_OK = 0,
    MEMORY_JOB_TIMED_OUT = 1,
    MEMORY_JOB_NO_ROOM = 2,
    MEMORY_JOB_BAD_ARGUMENT = 3,
};

/* The result of a job, which is of one of two kinds: blocking or background. */
typedef struct {
    uint32_t handle; /* 0 for a blocking job */
    uint32_t syserr; /* MEMORY_JOB_... */
    void *ret_info;  /* what the body handed back, or NULL; valid until the next job of the same kind */
    uint32_t ret_info_size;
    int32_t ret_syserr; /* what the body returned; 0 unless syserr is 0 */
} memory_completion;

/* A job that is about to start. */
typedef struct {
    int in_background;
    spawnlet_body_t body;
    void *arg; /* not copied: must live until the completion */
    const job_options *options;
    FILE *in, *out, *err;
    /* NULL at first. If a hook sets it, no body runs, and this is the job's result; it must live until the job ends. */
    const memory_completion *outcome;
} memory_job;

/* Everything that a test can set and read. */
typedef struct {
    /* set by the test; all zero at start */
    /* How long each job takes that ends from now on. A job whose timeout is shorter times out; its body never runs. */
    int32_t job_seconds;
    int jobs_never_end;     /* background jobs get a handle, but never run and never complete */
    uint32_t next_handle;   /* handle of the next background job; 0 is skipped */
    uint32_t register_code; /* result of spawnlet_register_async_q() */
    int32_t vrfs;           /* the highest VRF that a job can be bound to */
    int rtctx_fails;        /* rtctx_api_init() fails */
    uint32_t partition;
    uint32_t history_class, history_subtype; /* what the event history records; class 0: nothing */
    int debug_flag;                          /* the one debug flag that is on; 0: none */

    /* hooks, NULL for none; evtrack_hist_event() returns the result of on_history(), dbgemit() that of on_debug() */
    uint32_t (*on_start)(memory_job *job); /* a job is about to start; nonzero: refuse it with this code */
    void (*on_call)(const char *text);     /* each call of rtctx, nsbind, spawnlet_done or registration */
    int (*on_history)(uint32_t event_class, uint32_t length, const void *record);
    int (*on_debug)(const char *text, size_t length); /* NUL-terminated, at most 4095; may contain NULs */

    /* read by the test */
    int connected; /* to the routing-context service */
    int bound;     /* the running body is bound to vrf; 0 after a binding that failed */
    int32_t vrf;
} memory_world;

extern memory_world memory;

/* memory_reset: restore the state at start, and drop all background jobs. */
void memory_reset(void);

/* memory_queue_create: create a queue for spawnlet_register_async_q(). Never returns 0. */
uint32_t memory_queue_create(void);

/*
 * memory_queue_next: run the oldest background job, and fill *completion.
 *
 * Returns 1; 0 if there is no job; -1 if this is not the registered queue, or a body is running.
 */
int memory_queue_next(uint32_t queue, memory_completion *completion);

#ifdef __cplusplus
}
#endif

#endif
