/*
 * memory.c: the conformance port of platform/memory.
 */
#include "platform/conformance/conformance.h"
#include "platform/memory/memory_platform.h"

/* Never waits: either a completion is available at once, or none will come. */
static int queue_next(uint32_t queue, conformance_completion *done, int timeout_ms)
{
    memory_completion completion;
    (void)timeout_ms;
    if (memory_queue_next(queue, &completion) != 1)
        return 0;
    *done = (conformance_completion){completion.handle, completion.syserr, completion.ret_info,
                                     completion.ret_info_size, completion.ret_syserr};
    return 1;
}

static void trace_on(void)
{
    memory.history_class = 0x730000;
    memory.history_subtype = 101;
    memory.debug_flag = 101;
}

static void jobs_take(int seconds)
{
    memory.job_seconds = seconds;
}

const conformance_port the_port = {.name = "memory",
                                   .queue_create = memory_queue_create,
                                   .queue_next = queue_next,
                                   .trace_on = trace_on,
                                   .jobs_take = jobs_take};
