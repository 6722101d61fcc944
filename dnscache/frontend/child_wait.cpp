/*
 * child_wait.cpp: waits a bounded time for a child of the host. The library itself does not call it.
 */
#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/wait.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"

static constexpr int poll_interval_us = 25000;
static constexpr int polls_max = 80;       /* 2 s of sleep */
static constexpr int polls_per_trace = 40; /* 1 s of sleep */

static void sleep_between_polls()
{
    struct timeval interval = {.tv_sec = 0, .tv_usec = poll_interval_us};
    select(0, nullptr, nullptr, nullptr, &interval);
}

void dnscache_wait_for_child(int pid)
{
    const errno_guard kept;
    int wait_iterations = 0;
    for (;;) {
        const pid_t reaped = waitpid(pid, nullptr, WNOHANG);
        const int error = errno; /* before a trace sink changes it */
        if (reaped > 0)
            return;
        if (wait_iterations == polls_max)
            break;
        if (reaped < 0 && error == EINTR)
            continue;
        if (reaped < 0) {
            TRACE_HERE("%s(%d): spawnlet(%d) errno(D'%d:%s)\n", pid, error, strerror(error));
            return;
        }
        wait_iterations++;
        if (wait_iterations == 1 || wait_iterations % polls_per_trace == 0)
            TRACE_HERE("%s(%d): iter(%d) Waiting for spawnlet(%d) to exit \n", wait_iterations, pid);
        sleep_between_polls();
    }
    TRACE_HERE("%s(%d): spawnlet(%d) not yet exited\n", pid);
}
