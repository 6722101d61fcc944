/*
 * spawnlet_queue.cpp: completions behind one descriptor that can be polled.
 *
 * The queue is an epoll descriptor. It watches the channel and the pidfd of every background job, and a timer that is
 * set to the earliest of their deadlines. It stores no completions: linux_queue_next() checks the jobs in turn and
 * ends the first that is over. So no completion can get lost.
 */
#include "platform/linux/spawnlet_queue.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "platform/linux/descriptors.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/monotonic_clock.h"
#include "platform/linux/spawnlet_child.h"
#include "platform/spawnlet.h"

static int registered_queue = -1;
static int deadline_timer = -1;
static unsigned char *delivered_handback; /* of the last completion; linux_queue_next() frees it */

static bool is_in_background(const spawnlet_job &job)
{
    return job.state == JOB_RUNNING && job.handle != 0;
}

static bool add_to_queue(int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};
    return epoll_ctl(registered_queue, EPOLL_CTL_ADD, fd, &event) == 0;
}

/* close() alone is not enough: a copy in a forked child would keep the descriptor in the queue. */
static void drop_from_queue(int fd)
{
    epoll_ctl(registered_queue, EPOLL_CTL_DEL, fd, nullptr);
}

static void close_timer()
{
    if (deadline_timer < 0)
        return;
    drop_from_queue(deadline_timer);
    close(deadline_timer);
    deadline_timer = -1;
}

static bool open_timer()
{
    if (deadline_timer >= 0)
        return true;
    deadline_timer = above_streams(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (deadline_timer < 0)
        return false;
    if (!add_to_queue(deadline_timer))
        close_timer();
    return deadline_timer >= 0;
}

/* If the earliest deadline has passed, the timer becomes readable at once. */
void queue_set_timer()
{
    if (registered_queue < 0)
        return;
    int64_t earliest = INT64_MAX;
    for (const spawnlet_job &job : all_jobs())
        if (is_in_background(job) && job.deadline_ns < earliest)
            earliest = job.deadline_ns;
    if (earliest == INT64_MAX)
        close_timer();
    if (earliest == INT64_MAX || !open_timer())
        return;
    struct itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(earliest / ns_per_second);
    when.it_value.tv_nsec = static_cast<long>(earliest % ns_per_second);
    timerfd_settime(deadline_timer, TFD_TIMER_ABSTIME, &when, nullptr);
}

bool queue_watch(const spawnlet_job *job)
{
    if (registered_queue < 0)
        return true;
    if (!open_timer() || !add_to_queue(job->channel))
        return false;
    if (!add_to_queue(job->pidfd)) {
        drop_from_queue(job->channel);
        return false;
    }
    queue_set_timer();
    return true;
}

void queue_unwatch(const spawnlet_job *job)
{
    drop_from_queue(job->channel);
    drop_from_queue(job->pidfd);
}

uint32_t linux_queue_create(void)
{
    const int queue = above_streams(epoll_create1(EPOLL_CLOEXEC));
    return queue > 0 ? static_cast<uint32_t>(queue) : 0;
}

uint32_t spawnlet_register_async_q(uint32_t queue)
{
    if (queue == 0 || queue > INT32_MAX || registered_queue >= 0 || in_job_child())
        return LINUX_JOB_BAD_ARGUMENT;
    struct epoll_event any;
    if (epoll_wait(static_cast<int>(queue), &any, 1, 0) < 0 && errno != EINTR) /* not an epoll descriptor */
        return LINUX_JOB_BAD_ARGUMENT;
    registered_queue = static_cast<int>(queue);
    /* Errors are ignored: either descriptor reports the end, and a late completion is better than no queue. */
    for (const spawnlet_job &job : all_jobs())
        if (is_in_background(job)) {
            add_to_queue(job.channel);
            add_to_queue(job.pidfd);
        }
    queue_set_timer();
    return LINUX_JOB_OK;
}

static void complete(spawnlet_job *job, linux_completion *completion)
{
    *completion = {};
    completion->handle = job->handle;
    completion->syserr = job->code;
    if (job->code == LINUX_JOB_OK) {
        delivered_handback = job->reader.handback; /* the job no longer owns it */
        job->reader.handback = nullptr;
        completion->ret_info = delivered_handback;
        completion->ret_info_size = job->reader.handback_size;
        completion->ret_syserr = job->reader.result;
    }
    queue_unwatch(job);
    job_retire(job);
}

int linux_queue_next(uint32_t queue, linux_completion *completion)
{
    if (registered_queue < 0 || queue != static_cast<uint32_t>(registered_queue) || in_job_child()) {
        errno = EINVAL;
        return -1;
    }
    const int error = errno; /* a successful call leaves errno unchanged */
    free(delivered_handback);
    delivered_handback = nullptr;
    jobs_reap();

    static uint32_t turn; /* the slot to check first; it moves on, so that no busy job delays the others */
    int taken = 0;
    for (uint32_t i = 0; i < LINUX_JOBS_MAX && taken == 0; i++) {
        spawnlet_job *job = &all_jobs()[turn++ % LINUX_JOBS_MAX];
        if (is_in_background(*job) && job_advance(job)) {
            complete(job, completion);
            taken = 1;
        }
    }
    queue_set_timer();
    errno = error;
    return taken;
}

int linux_queue_dispatch(uint32_t queue, linux_completion_handler deliver, linux_completion_observer seen,
                         void *data)
{
    linux_completion done;
    int taken, count = 0;
    while ((taken = linux_queue_next(queue, &done)) == 1) {
        deliver(done.handle, done.syserr, done.ret_info, done.ret_info_size, done.ret_syserr);
        deliver(done.handle, done.syserr, nullptr, 0, done.ret_syserr);
        if (seen != nullptr)
            seen(&done, data);
        count++;
    }
    return taken < 0 ? -1 : count;
}
