/*
 * job_start.h: the one way to the job service. Both starts run resolve_server_hostname() on a request record,
 * inside a bracket that keeps the parent's routing-context connection out of the child.
 */
#ifndef DNSCACHE_JOBS_JOB_START_H
#define DNSCACHE_JOBS_JOB_START_H

#include <stdint.h>

#include "dnscache/dnscache.h"
#include "platform/spawnlet.h"

constexpr int32_t ASYNC_JOB_SECONDS = 300;
constexpr int32_t REFRESH_JOB_SECONDS = 0; /* as long as the job service lets it live */

/* What a blocking job brought back. The buffer stays the job service's. */
struct job_outcome {
    uint32_t syserr;
    void *ret_info;
    uint32_t ret_info_size;
    int32_t ret_syserr;
};

/* Options with a fresh tag; the time-out is the start's to set. One record serves all starts of a call. */
job_options new_job_options();

/*
 * start_blocking_job: run a job and wait for it, blocking_timeout seconds at most.
 *
 * owner    the exported call that traces a failure
 *
 * Leaves SIGCHLD ignored, so that a host that waits for nobody collects no zombies.
 */
job_outcome start_blocking_job(const char *owner, server_addr_info *request, job_options *options);

/*
 * start_async_job: start a job and return. Its handle lands in the request record, which must live until the
 * completion.
 *
 * Returns 0 or the job service's code.
 */
uint32_t start_async_job(const char *owner, server_addr_info *request, job_options *options,
                         int32_t timeout_secs);

#endif
