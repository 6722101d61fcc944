/*
 * conformance_faults.c: a faulty Linux platform, in which no completion reports a failed job.
 */
#include "platform/linux/linux_platform.h"

__typeof__(linux_queue_next) __real_linux_queue_next;

int __wrap_linux_queue_next(uint32_t queue, linux_completion *done)
{
    const int taken = __real_linux_queue_next(queue, done);
    done->syserr = 0;
    return taken;
}
