/*
 * resolve.cpp: the lookup, and how a host handles the result -3.
 *
 * -3 means either that a background job is running, or that the resolver itself returned EAI_AGAIN and no job is
 * running. Only the job counters distinguish the two. In the second case waiting for a completion would never end.
 */
#include "host/resolve.h"

#include <glib-unix.h>
#include <stdio.h>

#include "dnscache/dnscache.h"
#include "host/output.h"
#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

static constexpr int CALL_REFUSED = -1;
static constexpr char ERASE_LINE[] = "\r\033[K";

static void note_completion(const linux_completion *done, void *data)
{
    auto *waiter = static_cast<struct job_waiter *>(data);
    if (waiter->awaited == 0 || done->handle != waiter->awaited)
        return;
    waiter->awaited = 0;
    waiter->syserr = done->syserr;
    waiter->ret_syserr = done->ret_syserr;
}

/* The library needs every completion: a job that is not reported to it counts as running forever. */
static void take_completions(struct job_waiter *waiter)
{
    waiter->broken =
        linux_queue_dispatch(waiter->queue, dnscache_spawnletcb_job_done, note_completion, waiter) < 0;
}

static gboolean queue_is_readable(int, GIOCondition, void *data)
{
    auto *waiter = static_cast<struct job_waiter *>(data);
    take_completions(waiter);
    if (waiter->awaited == 0 || waiter->broken)
        g_main_loop_quit(waiter->loop);
    return G_SOURCE_CONTINUE;
}

bool job_waiter_open(struct job_waiter *waiter, int32_t timeout_secs, int32_t lifetime_secs)
{
    *waiter = {};
    waiter->queue = linux_queue_create();
    if (waiter->queue == 0)
        return false;
    dns_cache_init(waiter->queue, timeout_secs);
    if (lifetime_secs >= 0)
        dns_cache_set_timeout(lifetime_secs);
    waiter->loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(static_cast<int>(waiter->queue), G_IO_IN, queue_is_readable, waiter);
    return true;
}

static void conclude(struct lookup_outcome *outcome, int result, enum exit_code code, const char *problem)
{
    outcome->result = result;
    outcome->code = code;
    outcome->problem = problem;
}

/* Returns the handle of the background job that the call started; 0: none. */
static uint32_t call_library(const struct lookup_request *request, struct lookup_outcome *outcome)
{
    const struct addrinfo hints = {};
    linux_job_counters before;
    linux_job_counters after;
    linux_jobs_started(&before);
    const int result =
        getaddrinfo_async_mq3(request->host, request->service, &hints, request->vrf, &outcome->addresses);
    linux_jobs_started(&after);

    if (result == EAI_AGAIN && after.background != before.background) {
        conclude(outcome, result, LOOKUP_UNFINISHED, "still being resolved in the background, try again");
        return after.last_handle;
    }
    if (result == 0)
        conclude(outcome, result, LOOKUP_RESOLVED, nullptr);
    else if (result > 0)
        conclude(outcome, result, LOOKUP_UNFINISHED, errcode2str(static_cast<uint32_t>(result)));
    else if (result == CALL_REFUSED)
        conclude(outcome, result, LOOKUP_FAILED,
                 "the lookup was refused: no memory, no job, or no usable record");
    else
        conclude(outcome, result, LOOKUP_UNRESOLVED, gai_strerror(result));
    if (result == 0)
        outcome->source = after.blocking == before.blocking ? SOURCE_CACHE : SOURCE_JOB;
    return 0;
}

static void wait_for_job(struct job_waiter *waiter, uint32_t handle)
{
    if (waiter->broken)
        return;
    waiter->awaited = handle;
    g_main_loop_run(waiter->loop);
}

static void finish_in_background(struct job_waiter *waiter, const struct lookup_request *request,
                                 struct lookup_outcome *outcome)
{
    if (waiter->broken) {
        conclude(outcome, outcome->result, LOOKUP_FAILED, "completions of background jobs do not arrive");
        return;
    }
    if (waiter->syserr != 0) {
        conclude(outcome, outcome->result, LOOKUP_UNFINISHED, errcode2str(waiter->syserr));
        return;
    }
    if (waiter->ret_syserr != 0) {
        conclude(outcome, waiter->ret_syserr, LOOKUP_UNRESOLVED, gai_strerror(waiter->ret_syserr));
        return;
    }
    call_library(request, outcome);
    if (outcome->source == SOURCE_CACHE)
        outcome->source = SOURCE_BACKGROUND;
}

static void show_wait(const char *host)
{
    /* It must fit on one row of the terminal: ERASE_LINE erases only one. */
    g_autofree char *shown = printable_name(host);
    fprintf(stderr, "dnscache-lookup: waiting for %s", shown);
}

struct lookup_outcome resolve(struct job_waiter *waiter, const struct lookup_request *request,
                              enum wait_mode mode, bool notice)
{
    struct lookup_outcome outcome = {};
    take_completions(waiter);
    refresh_dns_cache(); /* enforces the lifetime: a lookup ignores the age of an answer */

    if (notice)
        show_wait(request->host);
    const int64_t start = g_get_monotonic_time();
    const uint32_t handle = call_library(request, &outcome);
    if (handle != 0 && mode == WAIT_FOR_JOB) {
        wait_for_job(waiter, handle);
        finish_in_background(waiter, request, &outcome);
    }
    outcome.elapsed_us = g_get_monotonic_time() - start;
    if (notice)
        fputs(ERASE_LINE, stderr);
    return outcome;
}
