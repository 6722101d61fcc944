/*
 * job_start.h: the only way to start a job. Both kinds of job run resolve_server_hostname() on a request record.
 * The routing-context connection is closed before each fork and reopened after it, so that no child inherits it.
 */
#ifndef DNSCACHE_JOBS_JOB_START_H
#define DNSCACHE_JOBS_JOB_START_H

#include <stdint.h>

#include "dnscache/dnscache.h"
#include "platform/spawnlet.h"

constexpr int32_t ASYNC_JOB_SECONDS = 300;
constexpr int32_t REFRESH_JOB_SECONDS = 0; /* the job service's own limit */

/* The result of a blocking job. The job service owns the buffer. */
struct job_outcome {
    uint32_t syserr;
    void *ret_info;
    uint32_t ret_info_size;
    int32_t ret_syserr;
};

/* new_job_options: an options record with a random tag, for all jobs of one call. Each start sets the timeout. */
job_options new_job_options();

/*
 * start_blocking_job: run a job and wait for it, for at most blocking_timeout seconds.
 *
 * traced_as  the exported call that starts the job
 *
 * Leaves SIGCHLD ignored, so that a host that reaps no children collects no zombies.
 */
job_outcome start_blocking_job(const char *traced_as, server_addr_info *request, job_options *options);

/*
 * start_async_job: start a job and return. The job service writes the job's handle to the request record, which must
 * live until the completion.
 *
 * Returns 0 or the job service's code.
 */
uint32_t start_async_job(const char *traced_as, server_addr_info *request, job_options *options,
                         int32_t timeout_secs);

#endif
