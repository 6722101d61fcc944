/*
 * resolve.h: one lookup from question to outcome, with the wait for its background job.
 */
#ifndef HOST_RESOLVE_H
#define HOST_RESOLVE_H

#include <glib.h>
#include <netdb.h>
#include <stdint.h>

#include "host/exit_code.h"

/* The completion queue in the main loop, and the job that is waited for. */
struct job_waiter {
    uint32_t queue;
    GMainLoop *loop;
    uint32_t awaited; /* handle; 0: nobody waits */
    uint32_t syserr;  /* of the last job that was waited for */
    int32_t ret_syserr;
    bool broken; /* no completion can be taken any more */
};

struct lookup_request {
    const char *host;
    const char *service;
    int32_t vrf;
};

enum answer_source : int {
    SOURCE_NONE,
    SOURCE_CACHE,
    SOURCE_JOB,        /* the child that the call waited for */
    SOURCE_BACKGROUND, /* the one that went on when the call gave up */
};

struct lookup_outcome {
    int result; /* the library's code, or the background job's in its place */
    enum answer_source source;
    int64_t elapsed_us;
    struct addrinfo *addresses; /* to be released with freeaddrinfo() */
    enum exit_code code;
    const char *problem; /* a constant; NULL when the name resolved */
};

/*
 * job_waiter_open: register a completion queue with the library and the main loop.
 *
 * timeout_secs, lifetime_secs  as on the command line: 0 and -1 leave the library's own
 *
 * Returns false with errno. There is one waiter, and it lives as long as the program.
 */
bool job_waiter_open(struct job_waiter *waiter, int32_t timeout_secs, int32_t lifetime_secs);

enum wait_mode : int { WAIT_NOT, WAIT_FOR_JOB };

/*
 * resolve: look one name up. Everything in *request has been checked.
 *
 * notice  a line on the terminal while it lasts: any lookup may take as long as the blocking time-out
 */
struct lookup_outcome resolve(struct job_waiter *waiter, const struct lookup_request *request,
                              enum wait_mode mode, bool notice);

#endif
