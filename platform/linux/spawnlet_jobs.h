/*
 * spawnlet_jobs.h: what the files of the job service share: a job, and how it moves on.
 *
 *   FREE -> RUNNING      forked, watched until its result, its end or its deadline
 *        -> LEAVING      over for whoever started it; its child has yet to exit and to be reaped
 *        -> FREE
 */
#ifndef PLATFORM_LINUX_SPAWNLET_JOBS_H
#define PLATFORM_LINUX_SPAWNLET_JOBS_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <span>

#include "platform/linux/spawnlet_wire.h"
#include "platform/spawnlet.h"

/* How long a child may take to write out its text and exit, once its result has been read. */
constexpr int JOB_LEAVING_SECONDS = 2;

enum job_state { JOB_FREE, JOB_RUNNING, JOB_LEAVING };

struct job {
    job_state state;
    uint32_t handle; /* 0: somebody waits for it in spawnlet_fork_fp() */
    int pidfd;       /* the child can exit and its pid be used again: only this names it safely */
    int channel;     /* parent's end */
    int64_t deadline_ns;
    uint32_t code; /* LINUX_JOB_..., once job_advance() said that it is over */
    wire_reader reader;
};

/* All LINUX_JOBS_MAX slots. */
std::span<job> all_jobs();

constexpr int64_t ns_per_second = 1'000'000'000;

/* The one clock of the service: monotonic. */
int64_t monotonic_ns();

/* ms_until: rounded up, so that the last poll before a deadline does not end early and turn into a busy loop. */
int ms_until(int64_t deadline_ns);

/*
 * above_streams: the same open file on a descriptor above 2, in place of fd. Whatever the service holds must stay out
 * of the way of a host that runs without standard streams, and prints all the same.
 *
 * Returns the descriptor; -1 when fd was, or when there is none left.
 */
int above_streams(int fd);

/*
 * free_slot: a slot for a new job, after a look at who has left.
 *
 * deadline_ns  until when to wait for a child that leaves; 0 not to wait
 */
job *free_slot(int64_t deadline_ns);

/* job_advance: look at what has come, without waiting. true: the job is over and its code is set. */
bool job_advance(job *job);

/* job_retire: done with a job that is over. The child leaves by itself, or is killed: at once if it has failed. */
void job_retire(job *job);

/* jobs_reap: free the slots of children that have exited since, and kill those that outlived their deadline. */
void jobs_reap();

/* Between job service and queue: each background job is watched from its start until it is over. */

/* queue_watch: false when the system has no room for it. Without a registered queue there is nothing to do. */
bool queue_watch(const job *job);
void queue_unwatch(const job *job);

/* queue_set_timer: to the earliest deadline. Without a job there is no timer: a host that waits for nothing holds none. */
void queue_set_timer();

/* The child's side */

struct child_plan {
    spawnlet_body_t body;
    void *arg;
    FILE *in, *out, *err;
    /* Filled in by the start of the job: */
    int channel = -1;        /* child's end */
    int parent_channel = -1; /* inherited copy of the parent's end, to be closed */
    pid_t parent = 0;
    unsigned seconds = 0; /* until SIGALRM ends a child whose parent does not look after it any more */
};

/* child_run: everything from the fork to the exit. Called with all signals blocked. */
[[noreturn]] void child_run(const child_plan *plan);

/* in_job_child: whether this process is the child of a job, which starts none of its own. */
bool in_job_child();

#endif
