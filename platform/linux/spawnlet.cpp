/*
 * spawnlet.cpp: the two calls that start a job, the texts of the codes, and the fork.
 *
 * A job is over when the parent has read the child's result, not when the child has exited: if the parent has much
 * memory, that exit takes as long as the fork did. The child is reaped later through its pidfd. ECHILD is no error
 * then: the host has reaped the child itself.
 */
#include "platform/spawnlet.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/descriptors.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/monotonic_clock.h"
#include "platform/linux/pidfd.h"
#include "platform/linux/spawnlet_child.h"
#include "platform/linux/spawnlet_jobs.h"
#include "platform/linux/spawnlet_queue.h"

static_assert(sizeof(job_options) == 44);

static linux_job_counters counters;
static unsigned char *last_handback; /* what the last spawnlet_fork_fp() returned; the next call frees it */

void linux_jobs_started(linux_job_counters *out)
{
    *out = counters;
}

const char *errcode2str(uint32_t code)
{
    switch (code) {
    case LINUX_JOB_OK:
        return "success";
    case LINUX_JOB_TIMED_OUT:
        return "job timed out";
    case LINUX_JOB_NO_RESULT:
        return "child ended without a result";
    case LINUX_JOB_FORK_REFUSED:
        return "fork refused";
    case LINUX_JOB_NO_RESOURCES:
        return "out of descriptors or memory";
    case LINUX_JOB_TOO_LARGE:
        return "hand-back too large";
    case LINUX_JOB_BAD_ARGUMENT:
        return "bad argument";
    default:
        return "unknown code";
    }
}

/* Starting a job */

static uint32_t new_handle()
{
    static uint32_t last;
    for (;;) {
        last++;
        bool is_taken = last == 0;
        for (const spawnlet_job &job : all_jobs())
            is_taken = is_taken || (job.state != JOB_FREE && job.handle == last);
        if (!is_taken)
            return last;
    }
}

static int seconds_allowed(const job_options *options)
{
    const bool is_bounded = options->timeout_secs > 0 && options->timeout_secs < LINUX_JOB_SECONDS_MAX;
    return is_bounded ? options->timeout_secs : LINUX_JOB_SECONDS_MAX;
}

static bool is_refused(spawnlet_body_t body, const job_options *options)
{
    return body == nullptr || options == nullptr || options->record_size != sizeof *options ||
           options->timeout_secs < 0 || in_job_child();
}

/* A child without a pidfd is still blocked in pass_gate(), and exits when the channel closes. */
static void reap_at_gate(pid_t pid)
{
    for (int ms = 0; ms < 1000 && waitpid(pid, nullptr, WNOHANG) == 0; ms++)
        poll(nullptr, 0, 1);
}

/* Returns -1 if the pid is not our child: it may be reused after a child was killed in pass_gate() and reaped. */
static int pidfd_of_child(pid_t pid)
{
    const int pidfd = above_streams(pidfd_open(pid, 0));
    siginfo_t state = {};
    if (pidfd < 0 || waitid(P_PIDFD, static_cast<id_t>(pidfd), &state, WEXITED | WNOHANG | WNOWAIT) == 0)
        return pidfd;
    close(pidfd);
    return -1;
}

/* Signals stay blocked in the child until it has reset the handlers, and in the host until it has the pidfd. */
static pid_t fork_child(const child_plan *plan, int *pidfd)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0)
        child_run(plan);
    const int error = errno;
    close(plan->channel); /* frees a descriptor for the pidfd */
    *pidfd = pid > 0 ? pidfd_of_child(pid) : -1;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return pid;
}

/* On success the slot is RUNNING, and its child waits in pass_gate(). */
static uint32_t fork_into(spawnlet_job *slot, child_plan *plan)
{
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
        return LINUX_JOB_NO_RESOURCES;
    plan->channel = channel[1];
    plan->parent_channel = above_streams(channel[0]);
    if (plan->parent_channel < 0) {
        close(plan->channel);
        return LINUX_JOB_NO_RESOURCES;
    }
    int pidfd;
    const pid_t pid = fork_child(plan, &pidfd);
    const bool is_refused_by_system = pid < 0 && errno == EAGAIN;
    if (pidfd < 0) {
        close(plan->parent_channel);
        if (pid > 0)
            reap_at_gate(pid);
        return is_refused_by_system ? LINUX_JOB_FORK_REFUSED : LINUX_JOB_NO_RESOURCES;
    }
    slot->state = JOB_RUNNING;
    slot->pidfd = pidfd;
    slot->channel = plan->parent_channel;
    return LINUX_JOB_OK;
}

/* EPIPE means that the child is dead: job_advance() will detect it. Other errors leave the child in pass_gate(). */
static bool open_gate(int channel)
{
    ssize_t sent;
    do
        sent = send(channel, "", 1, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == 1 || errno == EPIPE;
}

/* Returns NULL when the job could not be started; *code is the reason. */
static spawnlet_job *start_job(child_plan *plan, const job_options *options, uint32_t handle, uint32_t *code)
{
    const int seconds = seconds_allowed(options);
    const int64_t deadline_ns = monotonic_ns() + seconds * ns_per_second;
    spawnlet_job *slot =
        free_slot(handle == 0 ? deadline_ns : 0); /* starting a background job does not wait */
    if (slot == nullptr) {
        *code = LINUX_JOB_NO_RESOURCES;
        return nullptr;
    }
    plan->parent = getpid();
    plan->seconds = static_cast<unsigned>(seconds) + 1;
    *code = fork_into(slot, plan);
    if (*code != LINUX_JOB_OK)
        return nullptr;
    slot->handle = handle;
    slot->deadline_ns = deadline_ns;
    const bool is_watched = handle == 0 || queue_watch(slot);
    if (is_watched && open_gate(slot->channel))
        return slot;
    if (handle != 0 && is_watched)
        queue_unwatch(slot);
    slot->code = *code = LINUX_JOB_NO_RESOURCES;
    job_retire(slot);
    queue_set_timer();
    return nullptr;
}

/* The two calls */

static void wait_for(spawnlet_job *job)
{
    while (!job_advance(job)) {
        struct pollfd either[] = {{.fd = job->channel, .events = POLLIN, .revents = 0},
                                  {.fd = job->pidfd, .events = POLLIN, .revents = 0}};
        poll(either, 2, ms_until(job->deadline_ns));
    }
}

uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out, FILE *err)
{
    if (is_refused(body, options) || ret_info == nullptr || ret_info_size == nullptr || ret_syserr == nullptr)
        return LINUX_JOB_BAD_ARGUMENT;
    free(last_handback);
    last_handback = nullptr;
    *ret_info = nullptr;
    *ret_info_size = 0;
    *ret_syserr = 0;

    child_plan plan = {.body = body, .arg = arg, .in = in, .out = out, .err = err};
    uint32_t code;
    spawnlet_job *job = start_job(&plan, options, 0, &code);
    if (job == nullptr)
        return code;
    counters.blocking++;
    wait_for(job);
    code = job->code;
    if (code == LINUX_JOB_OK) {
        last_handback = job->reader.handback; /* the job no longer owns it */
        job->reader.handback = nullptr;
        *ret_info = last_handback;
        *ret_info_size = job->reader.handback_size;
        *ret_syserr = job->reader.result;
    }
    job_retire(job);
    return code;
}

uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int, const job_options *options, FILE *in,
                                FILE *out, FILE *err, uint32_t *handle)
{
    if (is_refused(body, options) || handle == nullptr)
        return LINUX_JOB_BAD_ARGUMENT;
    child_plan plan = {.body = body, .arg = arg, .in = in, .out = out, .err = err};
    uint32_t code;
    const spawnlet_job *job = start_job(&plan, options, new_handle(), &code);
    if (job == nullptr)
        return code;
    counters.background++;
    counters.last_handle = job->handle;
    *handle = job->handle;
    return LINUX_JOB_OK;
}
