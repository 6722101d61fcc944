/*
 * spawnlet_child.h: the child of a job.
 */
#ifndef PLATFORM_LINUX_SPAWNLET_CHILD_H
#define PLATFORM_LINUX_SPAWNLET_CHILD_H

#include <stdio.h>
#include <sys/types.h>

#include "platform/spawnlet.h"

struct child_plan {
    spawnlet_body_t body;
    void *arg;
    FILE *in, *out, *err;
    /* Set when the job is started: */
    int channel = -1;        /* child's end */
    int parent_channel = -1; /* inherited copy of the parent's end; the child closes it */
    pid_t parent = 0;
    unsigned seconds = 0; /* after this time SIGALRM kills the child, if its parent has not done so */
};

/* child_run: everything from the fork to the exit. Call it with all signals blocked. */
[[noreturn]] void child_run(const child_plan *plan);

/* in_job_child: whether this process is the child of a job. Such a process cannot start jobs. */
bool in_job_child();

#endif
