/*
 * spawnlet_jobs.cpp: the job table, and the states of a job from its start until its child is reaped.
 */
#include "platform/linux/spawnlet_jobs.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/monotonic_clock.h"
#include "platform/linux/pidfd.h"

/* The most that one job_advance() reads before it checks the deadline: enough for the largest hand-back. */
static constexpr int portions_max = 32;

static spawnlet_job jobs[LINUX_JOBS_MAX];

std::span<spawnlet_job> all_jobs()
{
    return jobs;
}

static bool is_readable(int fd)
{
    struct pollfd one = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&one, 1, 0) > 0;
}

static uint32_t code_of(wire_state state)
{
    switch (state) {
    case WIRE_DONE:
        return LINUX_JOB_OK;
    case WIRE_TOO_LARGE:
        return LINUX_JOB_TOO_LARGE;
    case WIRE_NO_MEMORY:
        return LINUX_JOB_NO_RESOURCES;
    default:
        return LINUX_JOB_NO_RESULT;
    }
}

bool job_advance(spawnlet_job *job)
{
    /* Checked before the channel is read: everything that the child wrote before it exited is then read below. */
    const bool has_exited = is_readable(job->pidfd);
    wire_input input = WIRE_INPUT_BYTES;
    for (int i = 0; i < portions_max && input == WIRE_INPUT_BYTES && job->reader.state == WIRE_READING; i++)
        input = wire_receive(&job->reader, job->channel);
    if (job->reader.state != WIRE_READING)
        job->code = code_of(job->reader.state);
    else if (input == WIRE_INPUT_END || (input == WIRE_INPUT_NONE && has_exited))
        job->code =
            LINUX_JOB_NO_RESULT; /* a grandchild may keep the channel open, so the child's exit decides */
    else if (monotonic_ns() >= job->deadline_ns)
        job->code = LINUX_JOB_TIMED_OUT;
    else
        return false;
    return true;
}

void job_retire(spawnlet_job *job)
{
    if (job->code != LINUX_JOB_OK)
        pidfd_send_signal(job->pidfd, SIGKILL, nullptr, 0);
    close(job->channel);
    wire_release(&job->reader);
    job->state = JOB_LEAVING;
    const int64_t leave_by_ns = monotonic_ns() + JOB_LEAVING_SECONDS * ns_per_second;
    if (job->deadline_ns > leave_by_ns)
        job->deadline_ns = leave_by_ns;
}

void jobs_reap()
{
    for (spawnlet_job &job : jobs) {
        if (job.state != JOB_LEAVING)
            continue;
        siginfo_t exited = {};
        const int rc = waitid(P_PIDFD, static_cast<id_t>(job.pidfd), &exited, WEXITED | WNOHANG);
        if ((rc == 0 && exited.si_pid != 0) || (rc < 0 && errno == ECHILD)) {
            close(job.pidfd);
            job = {};
        } else if (monotonic_ns() >= job.deadline_ns) {
            pidfd_send_signal(job.pidfd, SIGKILL, nullptr, 0);
        }
    }
}

/*
 * The children of a large parent can exit more slowly than new ones start. This waits until deadline_ns, or until a
 * leaving child has exited or reaches its deadline and must be killed. Returns false if no child is leaving.
 */
static bool wait_for_leaving_child(int64_t deadline_ns)
{
    struct pollfd leaving[LINUX_JOBS_MAX];
    nfds_t count = 0;
    const int64_t now_ns = monotonic_ns();
    for (const spawnlet_job &job : jobs) {
        if (job.state != JOB_LEAVING)
            continue;
        leaving[count++] = {.fd = job.pidfd, .events = POLLIN, .revents = 0};
        if (job.deadline_ns > now_ns && job.deadline_ns < deadline_ns)
            deadline_ns = job.deadline_ns;
    }
    if (count > 0)
        poll(leaving, count, ms_until(deadline_ns));
    return count > 0;
}

static spawnlet_job *find_free_slot()
{
    for (spawnlet_job &job : jobs)
        if (job.state == JOB_FREE)
            return &job;
    return nullptr;
}

spawnlet_job *free_slot(int64_t deadline_ns)
{
    for (;;) {
        jobs_reap();
        spawnlet_job *slot = find_free_slot();
        if (slot != nullptr || monotonic_ns() >= deadline_ns || !wait_for_leaving_child(deadline_ns))
            return slot;
    }
}
