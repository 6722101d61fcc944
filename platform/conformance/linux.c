/*
 * linux.c: the conformance port of platform/linux.
 */
#include <poll.h>

#include "platform/conformance/conformance.h"
#include "platform/linux/linux_platform.h"

static int queue_next(uint32_t queue, conformance_completion *done, int timeout_ms)
{
    linux_completion completion;
    struct pollfd readable = {.fd = (int)queue, .events = POLLIN};
    int taken = linux_queue_next(queue, &completion);
    while (taken == 0 && poll(&readable, 1, timeout_ms) != 0) /* readable, or a signal */
        taken = linux_queue_next(queue, &completion);
    if (taken != 1)
        return 0;
    *done = (conformance_completion){completion.handle, completion.syserr, completion.ret_info,
                                     completion.ret_info_size, completion.ret_syserr};
    return 1;
}

static void trace_on(void)
{
    linux_history_enable(1);
    linux_debug_enable(1);
}

const conformance_port the_port = {.name = "linux",
                                   .jobs_are_processes = 1,
                                   .queue_create = linux_queue_create,
                                   .queue_next = queue_next,
                                   .trace_on = trace_on};
