/*
 * spawnlet_queue.h: what the job service tells the completion queue. The queue watches each background job from its
 * start until it is over.
 */
#ifndef PLATFORM_LINUX_SPAWNLET_QUEUE_H
#define PLATFORM_LINUX_SPAWNLET_QUEUE_H

#include "platform/linux/spawnlet_jobs.h"

/* queue_watch: add a job. Returns false when the kernel refuses. Does nothing while no queue is registered. */
bool queue_watch(const spawnlet_job *job);

/* queue_unwatch: remove a job. */
void queue_unwatch(const spawnlet_job *job);

/* queue_set_timer: set the timer to the earliest deadline. While no background job runs, the host holds no timer. */
void queue_set_timer();

#endif
