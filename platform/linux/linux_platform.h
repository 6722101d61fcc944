/*
 * linux_platform.h: what a host may call on Linux beyond the headers of platform/: the queue on which completions
 * arrive, the VRFs, and the platform's switches. C11 and C++20. Call it from one thread, which must live as long as
 * its jobs do: the kernel kills a child when the thread that forked it ends. A forked copy of the host must not use
 * the queue.
 *
 * A host creates a queue, registers it (dns_cache_init() does this), adds its descriptor to its event loop, and takes
 * the completions whenever it is readable:
 *
 *     uint32_t queue = linux_queue_create();
 *     dns_cache_init(queue, 0);
 *     ...                                         // poll((int)queue) for POLLIN
 *     linux_queue_dispatch(queue, dnscache_spawnletcb_job_done, NULL, NULL);
 *
 * The host needs no signal handler, and may handle, ignore or not touch SIGCHLD. The job service reaps each child by
 * its own pidfd, during later calls, once the child has handed over its result and exited. Tested on Linux 5.10, 6.1
 * and 6.18.
 */
#ifndef PLATFORM_LINUX_LINUX_PLATFORM_H
#define PLATFORM_LINUX_LINUX_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Limits of the job service */

#define LINUX_JOB_SECONDS_MAX 300 /* no job lives longer; a timeout of 0 means this */
#define LINUX_JOBS_MAX 64         /* jobs at the same time, including children that have not exited yet */
#define LINUX_HANDBACK_MAX 65536  /* bytes that one spawnlet_done() accepts */

/* Codes of the job service. errcode2str() returns their texts. */
enum {
    LINUX_JOB_OK = 0,
    LINUX_JOB_TIMED_OUT = 0x501, /* the deadline passed; the child was killed */
    LINUX_JOB_NO_RESULT = 0x502, /* the child exited, or sent a malformed message, before its body's result */
    LINUX_JOB_FORK_REFUSED = 0x503, /* the system's limit on processes is reached */
    LINUX_JOB_NO_RESOURCES = 0x504, /* out of descriptors or memory, or LINUX_JOBS_MAX is reached */
    LINUX_JOB_TOO_LARGE = 0x505,    /* the child handed back more than LINUX_HANDBACK_MAX */
    LINUX_JOB_BAD_ARGUMENT = 0x506,
};

/* The completion of one background job. */
typedef struct {
    uint32_t handle; /* as given by spawnlet_fork_fp_async() */
    uint32_t syserr; /* LINUX_JOB_... */
    void *ret_info;  /* what the child handed back, or NULL; valid until the next linux_queue_next() */
    uint32_t ret_info_size;
    int32_t ret_syserr; /* what the body returned; 0 unless syserr is 0 */
} linux_completion;

/*
 * linux_queue_create: create a completion queue. The handle is a close-on-exec descriptor that becomes readable when
 * a completion may be waiting or the deadline of a job has passed. Do not read from it, and close() it only when the
 * host ends.
 *
 * Returns the handle, which is greater than 0; 0 with errno when there is no descriptor.
 */
uint32_t linux_queue_create(void);

/*
 * linux_queue_next: take the next completion, without blocking. Kills the jobs whose deadline has passed.
 *
 * Returns 1 when it has filled *completion, whose buffer is valid until the next call; 0 when no completion is
 * waiting; -1 with errno EINVAL when queue is not the registered one.
 */
int linux_queue_next(uint32_t queue, linux_completion *completion);

/* A function that takes the five values of a completion, such as dnscache_spawnletcb_job_done(). */
typedef void (*linux_completion_handler)(uint32_t handle, uint32_t syserr, void *ret_info,
                                         uint32_t ret_info_size, int32_t ret_syserr);

/* A function that gets a completion after it has been delivered. completion->ret_info is still valid. */
typedef void (*linux_completion_observer)(const linux_completion *completion, void *data);

/*
 * linux_queue_dispatch: take every completion that is waiting, without blocking. For each one it calls `deliver` with
 * its five values, then once more with the same handle but without the record (NULL, 0): if there was no memory for
 * the record, this ends the job; otherwise it only traces. Then it calls seen(&completion, data) once, unless seen is
 * NULL. `deliver` must not be NULL, and neither function may take completions from the queue.
 *
 * Returns the number of completions; -1 with errno EINVAL when queue is not the registered one.
 */
int linux_queue_dispatch(uint32_t queue, linux_completion_handler deliver, linux_completion_observer seen,
                         void *data);

/* The jobs that this process has started so far, and the handle of its last background job (0: none). */
typedef struct {
    uint64_t blocking;
    uint64_t background;
    uint32_t last_handle;
} linux_job_counters;

/* linux_jobs_started: read the counters. */
void linux_jobs_started(linux_job_counters *counters);

/* Event history: a ring buffer of the last LINUX_HISTORY_RECORDS records, shared with children. Off at the start. */

#define LINUX_HISTORY_RECORDS 256
#define LINUX_HISTORY_BYTES 516 /* of one record; longer ones are cut */

typedef struct {
    uint64_t sequence; /* counts from 1; after a gap, records in between were overwritten */
    uint32_t event_class;
    uint32_t length; /* bytes in record: a subtype word and NUL-terminated text */
    int32_t pid;     /* of the process that wrote it */
    unsigned char record[LINUX_HISTORY_BYTES];
} linux_history_record;

/* Class of this platform's own records: subtype 0, and the reason why a job could not enter or keep its VRF. */
#define LINUX_HISTORY_VRF_PROBLEM 0x56524600

/* linux_history_enable: switch recording on or off. Existing records stay. Returns 0; -1 with errno. */
int linux_history_enable(int on);

/*
 * linux_history_read: copy the oldest record whose sequence is greater than *cursor, and move the cursor to it.
 *
 * cursor   0 to start at the oldest record that is left
 *
 * Returns 1 with a record; 0 when there is none. A record that a child is just writing is skipped.
 */
int linux_history_read(uint64_t *cursor, linux_history_record *record);

/* linux_debug_enable: switch debug output to standard error on or off, for every flag. Off at the start. */
void linux_debug_enable(int on);

/*
 * VRFs. VRF 0 is where the host runs. VRF N is the network namespace vrfN or, if there is no such namespace, the
 * device vrfN of the host's own namespace. If the VRF has resolver files of its own, a job sees them in place of those
 * of the same name in /etc.
 */

#define LINUX_VRF_NAMESPACES "/run/netns" /* contains vrfN */
#define LINUX_VRF_FILES "/etc/netns"      /* contains the folder vrfN */

typedef enum {
    LINUX_VRF_HOST,
    LINUX_VRF_NAMESPACE,
    LINUX_VRF_DEVICE,
    LINUX_VRF_UNUSABLE, /* its path exists but is not a namespace, or cannot be opened: no job can be bound to it */
} linux_vrf_kind;

typedef struct {
    int32_t vrf;
    linux_vrf_kind kind;
} linux_vrf;

/*
 * linux_vrf_list: list the VRFs of this machine in ascending order, VRF 0 first.
 *
 * count   out: their number
 *
 * Returns an array that the caller releases with free(); NULL with errno.
 */
linux_vrf *linux_vrf_list(size_t *count);

/*
 * linux_vrf_check: try whether a job can be bound to a VRF now. It tries in a child, and waits for at most 10
 * seconds. That child is a blocking job: linux_jobs_started() counts it, and the buffer that the last
 * spawnlet_fork_fp() returned becomes invalid. It uses no network, and writes neither to standard error nor to the
 * event history.
 *
 * reason, size  receives "" or the reason why not, NUL-terminated, cut to size. Pass NULL and 0 if you do not need it.
 *               LINUX_HISTORY_BYTES are enough for every reason
 *
 * Returns 0 when a job can be bound to it; -1 when not, and always in a process that is bound to another VRF. errno
 * stays as it was.
 */
int linux_vrf_check(int32_t vrf, char *reason, size_t size);

/* linux_partition_set: set the device partition number, which is 0 at the start. */
void linux_partition_set(uint32_t partition);

#ifdef __cplusplus
}
#endif

#endif
