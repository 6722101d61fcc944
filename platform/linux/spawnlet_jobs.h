/*
 * spawnlet_jobs.h: the job table, and the states of a job.
 *
 *   FREE -> RUNNING      forked; watched until its result arrives, its child ends or its deadline passes
 *        -> LEAVING      over for the caller; its child has not been reaped yet
 *        -> FREE
 */
#ifndef PLATFORM_LINUX_SPAWNLET_JOBS_H
#define PLATFORM_LINUX_SPAWNLET_JOBS_H

#include <stdint.h>

#include <span>

#include "platform/linux/spawnlet_wire.h"

/* Once its result has been read, the child has this time to write its buffered text and to exit. */
constexpr int JOB_LEAVING_SECONDS = 2;

enum job_state { JOB_FREE, JOB_RUNNING, JOB_LEAVING };

struct spawnlet_job {
    job_state state;
    uint32_t handle; /* 0: spawnlet_fork_fp() is waiting for this job */
    int pidfd;   /* the pid may be reused after the child has exited; only the pidfd names the child safely */
    int channel; /* parent's end */
    int64_t deadline_ns;
    uint32_t code; /* LINUX_JOB_..., valid once job_advance() has returned true */
    wire_reader reader;
};

/* all_jobs: all LINUX_JOBS_MAX slots. */
std::span<spawnlet_job> all_jobs();

/*
 * free_slot: reap the children that have exited, and find a slot for a new job.
 *
 * deadline_ns  wait until then for a child that is leaving; 0: do not wait
 *
 * Returns NULL when no slot is free.
 */
spawnlet_job *free_slot(int64_t deadline_ns);

/* job_advance: read what has arrived, without blocking. Returns true when the job is over and its code is set. */
bool job_advance(spawnlet_job *job);

/* job_retire: release a job that is over. A child that succeeded exits by itself; one that failed is killed. */
void job_retire(spawnlet_job *job);

/* jobs_reap: free the slots of leaving children that have exited, and kill those whose deadline has passed. */
void jobs_reap();

#endif
