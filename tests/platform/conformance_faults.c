/*
 * conformance_faults.c: the Linux platform with one fault, which FAULT names. The conformance test has to find it.
 */
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

uint32_t __real_spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                                 int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out,
                                 FILE *err);
uint32_t __real_spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                       FILE *in, FILE *out, FILE *err, uint32_t *handle);
int __real_spawnlet_done(const void *buffer, uint32_t size);
int __real_linux_queue_next(uint32_t queue, linux_completion *completion);
const char *__real_errcode2str(uint32_t code);
int __real_nsbind_set_global_context(int32_t vrf);
int __real_rtctx_api_init(void);

static int has(const char *fault)
{
    return strcmp(getenv("FAULT"), fault) == 0;
}

uint32_t __wrap_spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                                 int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out,
                                 FILE *err)
{
    static int failed;
    static char other_argument[1000];
    if (has("runs in the host")) {
        *ret_syserr = body(arg);
        return 0;
    }
    if (has("fails for good after a failure") && failed)
        return 1;
    const uint32_t code = __real_spawnlet_fork_fp(
        body, has("loses the argument") ? other_argument : arg, ret_info, ret_info_size, ret_syserr, options,
        has("loses the input") ? NULL : in, has("loses the output") ? NULL : out, err);
    failed = failed || code != 0;
    if (has("returns no negative result") && *ret_syserr < 0)
        *ret_syserr = 0;
    if (has("cuts the record"))
        *ret_info_size /= 2;
    if (has("spoils the record") && *ret_info != NULL)
        memset(*ret_info, 0xff, 1);
    if (has("collects every child"))
        while (waitpid(-1, NULL, WNOHANG) > 0)
            ;
    if (has("leaves a descriptor"))
        dup(1);
    if (has("leaves a child") && fork() == 0)
        _exit(0);
    if (has("changes SIGCHLD"))
        signal(SIGCHLD, SIG_IGN);
    if (has("prints twice") && out != NULL)
        fputs("body ", out);
    return has("knows no failure") ? 0 : code;
}

uint32_t __wrap_spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                       FILE *in, FILE *out, FILE *err, uint32_t *handle)
{
    void *ret_info;
    uint32_t size;
    int32_t result;
    if (has("waits at the start"))
        __real_spawnlet_fork_fp(body, arg, &ret_info, &size, &result, options, in, out, err);
    const uint32_t code = __real_spawnlet_fork_fp_async(body, arg, one, options, in, out, err, handle);
    if (has("gives each job the same handle"))
        *handle = 7;
    return code;
}

int __wrap_linux_queue_next(uint32_t queue, linux_completion *done)
{
    static linux_completion last;
    static int again;
    if (has("delivers twice") && again) {
        again = 0;
        *done = last;
        return 1;
    }
    const int taken = __real_linux_queue_next(queue, done);
    if (taken != 1)
        return taken;
    again = 1;
    last = *done;
    if (has("completes without a code"))
        done->syserr = 0;
    if (has("completes without a record"))
        done->ret_info_size = 0;
    return taken;
}

int __wrap_spawnlet_done(const void *buffer, uint32_t size)
{
    return has("refuses the record") ? -1 : __real_spawnlet_done(buffer, size);
}

const char *__wrap_errcode2str(uint32_t code)
{
    static char text[32];
    if (has("has no text for a code") && code == 99)
        return NULL;
    if (has("writes texts over each other"))
        return snprintf(text, sizeof text, "code %u", code), text;
    return __real_errcode2str(code);
}

int __wrap_nsbind_set_global_context(int32_t vrf)
{
    return has("binds to anything") ? 0 : __real_nsbind_set_global_context(vrf);
}

int __wrap_rtctx_api_init(void)
{
    static int opened;
    return has("opens once") && opened++ > 0 ? 0 : __real_rtctx_api_init();
}
