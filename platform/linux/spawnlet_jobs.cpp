/*
 * spawnlet_jobs.cpp: the table of jobs, the clock, and how a job moves on from its start to the end of its child.
 */
#include "platform/linux/spawnlet_jobs.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern "C" {
#include <sys/pidfd.h> /* older C libraries forgot to say it themselves */
}

#include "platform/linux/linux_platform.h"

static constexpr int64_t ns_per_ms = 1'000'000;
static constexpr int portions_max = 32; /* of one look: a whole hand-back, and then the clock is looked at */

static job jobs[LINUX_JOBS_MAX];

std::span<job> all_jobs()
{
    return jobs;
}

int64_t monotonic_ns()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

int ms_until(int64_t deadline_ns)
{
    const int64_t left_ms = (deadline_ns - monotonic_ns() + ns_per_ms - 1) / ns_per_ms;
    return left_ms > 0 ? static_cast<int>(left_ms) : 0;
}

int above_streams(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
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

bool job_advance(job *job)
{
    /* Asked before the channel is read, so that nothing which the child wrote before its end is missed. */
    const bool has_exited = is_readable(job->pidfd);
    wire_input input = WIRE_INPUT_BYTES;
    for (int i = 0; i < portions_max && input == WIRE_INPUT_BYTES && job->reader.state == WIRE_READING; i++)
        input = wire_receive(&job->reader, job->channel);
    if (job->reader.state != WIRE_READING)
        job->code = code_of(job->reader.state);
    else if (input == WIRE_INPUT_END || (input == WIRE_INPUT_NONE && has_exited))
        job->code = LINUX_JOB_NO_RESULT; /* a grandchild may hold the channel open: the child's end decides */
    else if (monotonic_ns() >= job->deadline_ns)
        job->code = LINUX_JOB_TIMED_OUT;
    else
        return false;
    return true;
}

void job_retire(job *job)
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
    for (job &job : jobs) {
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
 * Children can leave more slowly than new ones start, when their parent is large. Waits until one has left or has to be
 * made to leave. false: none is leaving.
 */
static bool wait_for_leaver(int64_t deadline_ns)
{
    struct pollfd leaving[LINUX_JOBS_MAX];
    nfds_t count = 0;
    const int64_t now_ns = monotonic_ns();
    for (const job &job : jobs) {
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

static job *find_free_slot()
{
    for (job &job : jobs)
        if (job.state == JOB_FREE)
            return &job;
    return nullptr;
}

job *free_slot(int64_t deadline_ns)
{
    for (;;) {
        jobs_reap();
        job *slot = find_free_slot();
        if (slot != nullptr || monotonic_ns() >= deadline_ns || !wait_for_leaver(deadline_ns))
            return slot;
    }
}
