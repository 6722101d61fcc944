/*
 * spawnlet.h: the job service. It runs a function in a forked child and returns what the child hands back. The
 * library calls these functions from one thread.
 */
#ifndef PLATFORM_SPAWNLET_H
#define PLATFORM_SPAWNLET_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The function that runs in the child. arg is the child's own copy. The result reaches the parent as ret_syserr. */
typedef int (*spawnlet_body_t)(void *arg);

/* Options of one job, 44 bytes. */
typedef struct {
    uint32_t job_tag;     /* any value, for the service's own records */
    uint32_t record_size; /* 44 */
    uint32_t reserved_1[5];
    int32_t timeout_secs; /* 0: the longest time that the service allows any job */
    uint32_t reserved_2[2];
    uint32_t option_flag; /* 1 */
} job_options;

/*
 * spawnlet_fork_fp: run a job and wait for it.
 *
 * ret_info, ret_info_size  out: what the child passed to spawnlet_done(). The service owns the buffer; it is
 *                          valid until the next call of this function
 * ret_syserr               out: what the body returned
 * in, out, err             the child's standard streams; NULL for none
 *
 * Returns 0 if the body returned within timeout_secs, otherwise a code for errcode2str().
 */
uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out, FILE *err);

/*
 * spawnlet_fork_fp_async: start a job in the background. When it ends, exactly one completion arrives on the
 * registered queue: the handle, a code, and the three values ret_info, ret_info_size and ret_syserr.
 *
 * one     1
 * handle  out: the job's handle. The variable may lie inside the object that arg points to
 *
 * Returns 0 if the job was started. Otherwise returns a code, and there is no completion.
 */
uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                FILE *in, FILE *out, FILE *err, uint32_t *handle);

/* spawnlet_register_async_q: send the completions of this process to this queue from now on. Returns 0 or a code. */
uint32_t spawnlet_register_async_q(uint32_t queue);

/* spawnlet_done: in the child, hand size bytes back to the parent. It returns to its caller: 0 when accepted. */
int spawnlet_done(const void *buffer, uint32_t size);

/* errcode2str: return the text of a code, for any value. The text is constant. */
const char *errcode2str(uint32_t code);

#ifdef __cplusplus
}
#endif

#endif
