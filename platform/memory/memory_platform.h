/*
 * memory_platform.h: a platform layer without processes: what tests of the library and of its hosts link, and the least
 * that a port has to write. A job runs in the calling process, one in the background when its completion is taken. How
 * long jobs take and what becomes of them is said in `memory`, so the same calls have the same results each time. C11
 * and C++20.
 *
 * What it cannot do without processes: a body that crashes or waits does so to the host, text goes to the host's own
 * streams, and a VRF is a number that getaddrinfo() does not know of. Bring a getaddrinfo() of your own to script answers.
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

/* What a job came to. */
typedef struct {
    uint32_t handle; /* 0 of a job that was waited for */
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
    /* NULL; a hook may set it: the job comes to this, which must live as long, and no body runs */
    const memory_completion *outcome;
} memory_job;

/* Everything that can be said and seen. */
typedef struct {
    /* said; all zero at start */
    /* What a job takes that ends now: with a shorter time-out it has timed out, and no body runs. */
    int32_t job_seconds;
    int jobs_never_end;     /* background jobs get a handle, and nothing else comes of them */
    uint32_t next_handle;   /* of the next background job; 0 is passed over */
    uint32_t register_code; /* of spawnlet_register_async_q() */
    int32_t vrfs;           /* VRF 0 and so many more can be bound to */
    int rtctx_fails;        /* no connection to the routing context */
    uint32_t partition;
    uint32_t history_class, history_subtype; /* that the event history records; 0: none */
    int debug_flag;                          /* that is on; 0: none */

    /* hooks, each NULL or called for what its name says; the trace's return what that call returns */
    uint32_t (*on_start)(memory_job *job); /* nonzero: the job is refused with this code */
    void (*on_call)(const char *text);     /* a call of any other service but the trace's */
    int (*on_history)(uint32_t event_class, uint32_t length, const void *record);
    int (*on_debug)(const char *text, size_t length); /* terminated, at most 4095; may hold zeros */

    /* seen */
    int connected; /* to the routing context */
    int bound;     /* the running body, to vrf; not so after a binding that failed */
    int32_t vrf;
} memory_world;

extern memory_world memory;

/* memory_reset: everything as it was at start; jobs in the background are forgotten. */
void memory_reset(void);

/* memory_queue_create: a queue, for spawnlet_register_async_q(). Never 0. */
uint32_t memory_queue_create(void);

/*
 * memory_queue_next: run the oldest background job, and fill *completion.
 *
 * Returns 1; 0 when there is no job; -1 when this is not the registered queue, or a body is running.
 */
int memory_queue_next(uint32_t queue, memory_completion *completion);

#ifdef __cplusplus
}
#endif

#endif
