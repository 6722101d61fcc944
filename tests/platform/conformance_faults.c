/*
 * conformance_faults.c: the Linux platform with one fault. FAULT is the check of the conformance test that must report it.
 */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

__typeof__(spawnlet_fork_fp) __real_spawnlet_fork_fp;
__typeof__(linux_queue_next) __real_linux_queue_next;

static int breaks(const char *check)
{
    return strcmp(getenv("FAULT"), check) == 0;
}

uint32_t __wrap_spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                                 int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out,
                                 FILE *err)
{
    if (breaks("no descriptor and no child is left") && dup(STDERR_FILENO) < 0)
        abort();
    return __real_spawnlet_fork_fp(body, arg, ret_info, ret_info_size, ret_syserr, options, in, out, err);
}

int __wrap_linux_queue_next(uint32_t queue, linux_completion *done)
{
    const int taken = __real_linux_queue_next(queue, done);
    if (breaks("a child that is killed is a completion"))
        done->syserr = 0;
    return taken;
}
