/*
 * resolve.h: one lookup, from the request to the outcome, including the wait for its background job.
 */
#ifndef HOST_RESOLVE_H
#define HOST_RESOLVE_H

#include <glib.h>
#include <netdb.h>
#include <stdint.h>

#include "host/exit_code.h"

/* The completion queue in the main loop, and the job that the program waits for. */
struct job_waiter {
    uint32_t queue;
    GMainLoop *loop;
    uint32_t awaited; /* handle; 0: the program is not waiting */
    uint32_t syserr;  /* of the last job that the program waited for */
    int32_t ret_syserr;
    bool broken; /* completions can no longer be taken */
};

struct lookup_request {
    const char *host;
    const char *service;
    int32_t vrf;
};

enum answer_source : int {
    SOURCE_NONE,
    SOURCE_CACHE,
    SOURCE_JOB,        /* the job that the call waited for */
    SOURCE_BACKGROUND, /* the job that went on after the call returned -3 */
};

struct lookup_outcome {
    int result; /* the library's code, or that of the background job */
    enum answer_source source;
    int64_t elapsed_us;
    struct addrinfo *addresses; /* the caller releases it with freeaddrinfo() */
    enum exit_code code;
    const char *problem; /* a constant string; NULL when the name resolved */
};

/*
 * job_waiter_open: register a completion queue with the library and the main loop.
 *
 * timeout_secs, lifetime_secs  as on the command line; 0 and -1 keep the library's defaults
 *
 * Returns false with errno. There is one waiter, which exists as long as the program runs.
 */
bool job_waiter_open(struct job_waiter *waiter, int32_t timeout_secs, int32_t lifetime_secs);

enum wait_mode : int { WAIT_NOT, WAIT_FOR_JOB };

/*
 * resolve: look up one name. The caller has checked all fields of *request.
 *
 * notice  show a line on the terminal during the lookup: any lookup may take as long as the blocking timeout
 */
struct lookup_outcome resolve(struct job_waiter *waiter, const struct lookup_request *request,
                              enum wait_mode mode, bool notice);

#endif
