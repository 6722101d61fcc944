/*
 * conformance_faults.c: the Linux platform with one fault, named by FAULT. tests/CMakeLists.txt lists the faults, each
 * with the check of the conformance test that must report it.
 */
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

__typeof__(spawnlet_fork_fp) __real_spawnlet_fork_fp;
__typeof__(linux_queue_next) __real_linux_queue_next;

static int has(const char *fault)
{
    return strcmp(getenv("FAULT"), fault) == 0;
}

uint32_t __wrap_spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                                 int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out,
                                 FILE *err)
{
    if (has("stays in the host"))
        return *ret_syserr = body(arg), 0;
    const uint32_t code =
        __real_spawnlet_fork_fp(body, arg, ret_info, ret_info_size, ret_syserr, options, in, out, err);
    if (has("corrupts the record") && *ret_info != NULL)
        memset(*ret_info, 0xff, 1);
    if (has("leaks a descriptor"))
        dup(1);
    if (has("changes SIGCHLD"))
        signal(SIGCHLD, SIG_IGN);
    if (has("repeats output") && out != NULL)
        fputs("body ", out);
    return code;
}

int __wrap_linux_queue_next(uint32_t queue, linux_completion *done)
{
    const int taken = __real_linux_queue_next(queue, done);
    if (has("completes without a code"))
        done->syserr = 0;
    return taken;
}
