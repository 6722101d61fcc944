/*
 * conformance_faults.c: the Linux platform with one fault, named by FAULT. The conformance test must report it.
 */
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
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
uint32_t __real_spawnlet_register_async_q(uint32_t queue);
int __real_evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record);

static int has(const char *fault)
{
    return strcmp(getenv("FAULT"), fault) == 0;
}

static spawnlet_body_t body_of_job;

/* Applies the fault to a child, then runs its body. */
static int faulty_body(void *arg)
{
    struct stat status;
    sigset_t all;
    sigfillset(&all);
    if (has("blocks a child's signals"))
        sigprocmask(SIG_SETMASK, &all, NULL);
    for (int fd = 3; has("closes the log in a child") && fd < 100; fd++)
        if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
            close(fd);
    if (has("runs a body in a grandchild") && fork() != 0)
        return pause();
    return body_of_job(arg);
}

static spawnlet_body_t with_fault(spawnlet_body_t body)
{
    body_of_job = body;
    return faulty_body;
}

static job_options shortened(const job_options *options)
{
    job_options less = *options;
    if (has("shortens timeouts"))
        less.timeout_secs = 1;
    return less;
}

static void *in_one_buffer(void *ret_info, uint32_t size)
{
    static char buffer[1676];
    const int fits = ret_info != NULL && size <= sizeof buffer;
    return has("reuses one buffer") && fits ? memcpy(buffer, ret_info, size) : ret_info;
}

static uint32_t registered;

uint32_t __wrap_spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                                 int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out,
                                 FILE *err)
{
    static int failed;
    static char other_argument[1000], last_record[1676];
    const struct itimerval none = {{0, 0}, {0, 0}};
    const job_options less = shortened(options);
    linux_completion lost;
    if (has("runs the body in the host")) {
        *ret_syserr = body(arg);
        return 0;
    }
    if ((has("fails every job after a failure") && failed) ||
        (has("refuses a timeout of 0") && options->timeout_secs == 0))
        return 1;
    const uint32_t code = __real_spawnlet_fork_fp(
        with_fault(body), has("loses the argument") ? other_argument : arg, ret_info, ret_info_size,
        ret_syserr, &less, has("loses the input") ? NULL : in, has("loses the output") ? NULL : out, err);
    failed = failed || code != 0;
    if (has("reports failures late") && code != 0)
        sleep(6);
    *ret_info = in_one_buffer(*ret_info, *ret_info_size);
    if (has("stops the host's timer"))
        setitimer(ITIMER_REAL, &none, NULL);
    if (has("consumes completions") && registered != 0)
        __real_linux_queue_next(registered, &lost);
    if (has("returns the last record again") && *ret_info_size == sizeof last_record)
        memcpy(last_record, *ret_info, sizeof last_record);
    else if (has("returns the last record again"))
        *ret_info_size = sizeof last_record;
    if (has("hides negative results") && *ret_syserr < 0)
        *ret_syserr = 0;
    if (has("truncates the record"))
        *ret_info_size /= 2;
    if (has("corrupts the record") && *ret_info != NULL)
        memset(*ret_info, 0xff, 1);
    if (has("reaps every child"))
        while (waitpid(-1, NULL, WNOHANG) > 0)
            ;
    if (has("leaks a descriptor"))
        dup(1);
    if (has("leaks a child") && fork() == 0)
        _exit(0);
    if (has("changes SIGCHLD"))
        signal(SIGCHLD, SIG_IGN);
    if (has("prints output twice") && out != NULL)
        fputs("body ", out);
    return has("hides failures") ? 0 : code;
}

uint32_t __wrap_spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                       FILE *in, FILE *out, FILE *err, uint32_t *handle)
{
    void *ret_info;
    uint32_t size;
    int32_t result;
    if (has("refuses jobs before there is a queue") && registered == 0)
        return 1;
    if (has("runs each job once more, blocking"))
        __real_spawnlet_fork_fp(body, arg, &ret_info, &size, &result, options, in, out, err);
    const uint32_t code =
        __real_spawnlet_fork_fp_async(with_fault(body), arg, one, options, in, out, err, handle);
    if (has("gives all jobs the same handle"))
        *handle = 7;
    if (has("stores a wrong handle"))
        *handle = 0xfeedbeef;
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
    if (has("always completes with a record"))
        done->ret_info_size = 1676;
    done->ret_info = in_one_buffer(done->ret_info, done->ret_info_size);
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
    if (has("overwrites the text of a code"))
        return snprintf(text, sizeof text, "code %u", code), text;
    return __real_errcode2str(code);
}

int __wrap_nsbind_set_global_context(int32_t vrf)
{
    if (has("fails every binding"))
        return -1;
    return has("accepts every VRF") ? 0 : __real_nsbind_set_global_context(vrf);
}

int __wrap_rtctx_api_init(void)
{
    static int opened;
    return has("opens the routing context only once") && opened++ > 0 ? 0 : __real_rtctx_api_init();
}

uint32_t __wrap_spawnlet_register_async_q(uint32_t queue)
{
    registered = queue;
    return __real_spawnlet_register_async_q(queue);
}

int __wrap_evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record)
{
    if (has("aborts on an empty message") && length == 5)
        abort();
    return __real_evtrack_hist_event(event_class, length, record);
}
