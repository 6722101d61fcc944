/*
 * job_start.cpp: fills the options record, brackets each fork, and starts the two kinds of job.
 */
#include "dnscache/jobs/job_start.h"

#include <signal.h>
#include <stddef.h>
#include <stdlib.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/state.h"
#include "platform/rtctx.h"

static_assert(sizeof(job_options) == 44);
static_assert(offsetof(job_options, job_tag) == 0);
static_assert(offsetof(job_options, record_size) == 4);
static_assert(offsetof(job_options, timeout_secs) == 28);
static_assert(offsetof(job_options, option_flag) == 40);

job_options new_job_options()
{
    job_options options = {};
    options.job_tag = static_cast<uint32_t>(rand());
    options.record_size = sizeof options;
    return options;
}

namespace
{

/* Children must not inherit the routing-context connection. The parent reopens it, also if the fork fails. */
struct fork_bracket {
    const char *traced_as;

    explicit fork_bracket(const char *caller) : traced_as(caller)
    {
        rtctx_api_close();
    }
    ~fork_bracket()
    {
        if (rtctx_api_init() == 0)
            TRACE_HERE_AS(traced_as, "%s(%d): rtctx_api_init fail\n");
    }
    fork_bracket(const fork_bracket &) = delete;
    fork_bracket &operator=(const fork_bracket &) = delete;
};

} // namespace

/* The job service passes a void pointer to the body; this body is only ever started with a request record. */
static const auto resolver_body = reinterpret_cast<spawnlet_body_t>(resolve_server_hostname);

static void set_limits(job_options *options, int32_t timeout_secs)
{
    options->timeout_secs = timeout_secs;
    options->option_flag = 1;
}

job_outcome start_blocking_job(const char *traced_as, server_addr_info *request, job_options *options)
{
    job_outcome outcome = {};
    set_limits(options, blocking_timeout);
    signal(SIGCHLD, SIG_DFL);
    {
        const fork_bracket bracket(traced_as);
        outcome.syserr = spawnlet_fork_fp(resolver_body, request, &outcome.ret_info, &outcome.ret_info_size,
                                          &outcome.ret_syserr, options, stdin, log_file, log_file);
    }
    signal(SIGCHLD, SIG_IGN);
    return outcome;
}

uint32_t start_async_job(const char *traced_as, server_addr_info *request, job_options *options,
                         int32_t timeout_secs)
{
    set_limits(options, timeout_secs);
    const fork_bracket bracket(traced_as);
    return spawnlet_fork_fp_async(resolver_body, request, 1, options, stdin, stdout, stderr,
                                  &request->job_handle);
}
