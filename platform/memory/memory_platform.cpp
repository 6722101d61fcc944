/*
 * memory_platform.cpp: all of platform/ without processes. `memory` scripts and records what the calls do.
 */
#include "platform/memory/memory_platform.h"

#include <stdarg.h>
#include <string.h>

#include "platform/evtrack.h"
#include "platform/nsbind.h"
#include "platform/platmgr.h"
#include "platform/rtctx.h"

memory_world memory;
evtrack_modname evtrack_dbg_modname = {"dnscache"};

struct handback {
    uint32_t size;
    unsigned char bytes[MEMORY_HANDBACK_MAX];
};

struct background_job {
    memory_job job;
    int32_t timeout_secs; /* copied, since the options need not outlive the start */
    uint32_t handle;
};

static background_job pending[MEMORY_JOBS_MAX]; /* oldest first */
static size_t pending_count;
static uint32_t created_queues, registered_queue;
static handback blocking_handback, background_handback;
static handback *open_handback; /* of the running body; NULL when none is running */

void memory_reset(void)
{
    memory = {};
    pending_count = 0;
    created_queues = registered_queue = 0;
    open_handback = nullptr; /* a test may have left a body by longjmp() */
}

static void note(const char *format, long number)
{
    char text[64];
    snprintf(text, sizeof text, format, number);
    if (memory.on_call != nullptr)
        memory.on_call(text);
}

/* Job service */

static bool is_acceptable(const memory_job *job)
{
    return job->body != nullptr && job->options != nullptr &&
           job->options->record_size == sizeof *job->options && job->options->timeout_secs >= 0;
}

/* Asks the hook first: it may give an outcome even to a job that is not acceptable. */
static uint32_t admit(memory_job *job)
{
    const uint32_t code = memory.on_start != nullptr ? memory.on_start(job) : 0;
    if (code != 0 || job->outcome != nullptr)
        return code;
    return is_acceptable(job) ? MEMORY_JOB_OK : MEMORY_JOB_BAD_ARGUMENT;
}

/* Imitates a child: the body starts without a VRF and without a connection, and what it changes ends with it. */
static int32_t run_body(const memory_job *job, handback *kept)
{
    const int connected = memory.connected;
    memory.connected = memory.bound = 0;
    open_handback = kept;
    const int32_t result = job->body(job->arg);
    open_handback = nullptr;
    memory.bound = 0;
    memory.connected = connected;
    return result;
}

/* options is NULL only if a hook gave an outcome to a job without options. Then the result is 0: no timeout. */
static int32_t time_out_of(const job_options *options)
{
    return options != nullptr ? options->timeout_secs : 0;
}

static memory_completion run(const memory_job *job, int32_t timeout_secs, handback *kept)
{
    if (job->outcome != nullptr)
        return *job->outcome;
    memory_completion result = {};
    if (timeout_secs != 0 && memory.job_seconds > timeout_secs) {
        result.syserr = MEMORY_JOB_TIMED_OUT;
        return result;
    }
    kept->size = 0;
    result.ret_syserr = run_body(job, kept);
    result.ret_info = kept->size > 0 ? kept->bytes : nullptr;
    result.ret_info_size = kept->size;
    return result;
}

uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out, FILE *err)
{
    memory_job job = {0, body, arg, options, in, out, err, nullptr};
    if (ret_info == nullptr || ret_info_size == nullptr || ret_syserr == nullptr || open_handback != nullptr)
        return MEMORY_JOB_BAD_ARGUMENT;
    const uint32_t code = admit(&job);
    if (code != MEMORY_JOB_OK)
        return code;
    const memory_completion result = run(&job, time_out_of(options), &blocking_handback);
    *ret_info = result.ret_info;
    *ret_info_size = result.ret_info_size;
    *ret_syserr = result.ret_syserr;
    return result.syserr;
}

uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                FILE *in, FILE *out, FILE *err, uint32_t *handle)
{
    memory_job job = {1, body, arg, options, in, out, err, nullptr};
    if (handle == nullptr || one != 1 || open_handback != nullptr)
        return MEMORY_JOB_BAD_ARGUMENT;
    const uint32_t code = admit(&job);
    if (code != MEMORY_JOB_OK)
        return code;
    if (memory.jobs_never_end == 0 && pending_count == MEMORY_JOBS_MAX)
        return MEMORY_JOB_NO_ROOM;
    if (memory.next_handle == 0)
        memory.next_handle = 1;
    *handle = memory.next_handle++;
    if (memory.jobs_never_end == 0)
        pending[pending_count++] = {job, time_out_of(options), *handle};
    return MEMORY_JOB_OK;
}

int spawnlet_done(const void *buffer, uint32_t size)
{
    note("hand back %ld", size);
    if (open_handback == nullptr || size > MEMORY_HANDBACK_MAX || (buffer == nullptr && size > 0))
        return -1;
    if (size > 0)
        memcpy(open_handback->bytes, buffer, size);
    open_handback->size = size;
    return 0;
}

uint32_t spawnlet_register_async_q(uint32_t queue)
{
    note("register queue %ld", queue);
    if (memory.register_code == MEMORY_JOB_OK)
        registered_queue = queue;
    return memory.register_code;
}

const char *errcode2str(uint32_t code)
{
    static const char *const texts[] = {"no error", "job timed out", "too many jobs", "bad argument"};
    return code < sizeof texts / sizeof texts[0] ? texts[code] : "unknown code";
}

uint32_t memory_queue_create(void)
{
    return ++created_queues;
}

int memory_queue_next(uint32_t queue, memory_completion *completion)
{
    if (queue == 0 || queue != registered_queue || open_handback != nullptr)
        return -1;
    if (pending_count == 0)
        return 0;
    const background_job oldest = pending[0];
    memmove(pending, pending + 1, --pending_count * sizeof oldest);
    *completion = run(&oldest.job, oldest.timeout_secs, &background_handback);
    completion->handle = oldest.handle;
    return 1;
}

/* Routing context, VRF binding, partition */

int rtctx_api_init(void)
{
    note("rtctx_api_init", 0);
    memory.connected = memory.rtctx_fails == 0;
    return memory.connected;
}

void rtctx_api_close(void)
{
    note("rtctx_api_close", 0);
    memory.connected = 0;
}

int nsbind_set_global_context(int32_t vrf)
{
    note("nsbind %ld", vrf);
    memory.bound = vrf >= 0 && vrf <= memory.vrfs;
    memory.vrf = vrf;
    return memory.bound ? 0 : -1;
}

uint32_t platmgr_partition_get(void)
{
    return memory.partition;
}

/* Trace */

int evtrack_hist_event_subtype_check(uint32_t event_class, uint32_t subtype)
{
    const bool is_on = memory.history_class != 0 && memory.history_class == event_class;
    return is_on && memory.history_subtype == subtype ? 0 : 1;
}

int evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record)
{
    return memory.on_history != nullptr ? memory.on_history(event_class, length, record) : 0;
}

int evtrack_chk_int(int flag, int unused_1, int unused_2, int one)
{
    return memory.debug_flag != 0 && memory.debug_flag == flag && unused_1 == 0 && unused_2 == 0 && one == 1;
}

int dbgemit(int one, const void *modname, int zero, const char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0 || memory.on_debug == nullptr || one != 1 || zero != 0 || modname != &evtrack_dbg_modname)
        return -1;
    const auto whole = static_cast<size_t>(length);
    return memory.on_debug(text, whole < sizeof text ? whole : sizeof text - 1);
}
