/*
 * linux_platform.h: what a host may call on Linux beyond the headers of platform/: the queue that completions
 * arrive on, and the platform's switches. C11 and C++20. One thread, which lives as long as its jobs do, since the
 * kernel ends a child with the thread that forked it; a forked copy of the host leaves the queue alone.
 *
 * A host makes a queue, registers it (dns_cache_init does), adds its descriptor to its event loop, and when
 * it is readable takes completions until there are none:
 *
 *     uint32_t queue = linux_queue_create();
 *     dns_cache_init(queue, 0);
 *     ...                                         // poll((int)queue) for POLLIN
 *     linux_completion done;
 *     while (linux_queue_next(queue, &done) == 1)
 *         dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
 *                                      done.ret_syserr);
 *
 * Nothing need be done in a signal handler, and SIGCHLD may be default, ignored or the host's own. Children
 * that have handed their result over are reaped, by their own pidfd, during later calls of the job service.
 * Tested on Linux 5.10, 6.1 and 6.18.
 */
#ifndef PLATFORM_LINUX_LINUX_PLATFORM_H
#define PLATFORM_LINUX_LINUX_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Limits of the job service */

#define LINUX_JOB_SECONDS_MAX 300 /* no job lives longer; a time-out of 0 means this */
#define LINUX_JOBS_MAX 64         /* jobs at once, children that have yet to exit included */
#define LINUX_HANDBACK_MAX 65536  /* bytes that one spawnlet_done() takes */

/* Its codes. errcode2str() has their texts. */
enum {
    LINUX_JOB_OK = 0,
    LINUX_JOB_TIMED_OUT = 0x501, /* the deadline passed; the child was killed */
    LINUX_JOB_NO_RESULT = 0x502, /* the child ended, or garbled its message, before its body's result came */
    LINUX_JOB_FORK_REFUSED = 0x503, /* the system's limit of processes */
    LINUX_JOB_NO_RESOURCES = 0x504, /* out of descriptors, memory or LINUX_JOBS_MAX */
    LINUX_JOB_TOO_LARGE = 0x505,    /* the child handed back more than LINUX_HANDBACK_MAX */
    LINUX_JOB_BAD_ARGUMENT = 0x506,
};

/* One finished background job. */
typedef struct {
    uint32_t handle; /* as given by spawnlet_fork_fp_async() */
    uint32_t syserr; /* LINUX_JOB_... */
    void *ret_info;  /* what the child handed back, or NULL; valid until the next linux_queue_next() */
    uint32_t ret_info_size;
    int32_t ret_syserr; /* what the body returned; 0 unless syserr is 0 */
} linux_completion;

/*
 * linux_queue_create: make a completion queue. The handle is a descriptor, close-on-exec, that is readable
 * when a completion may be waiting or a job's deadline has passed. Do not read it; close() it only at the
 * very end.
 *
 * Returns the handle, never 0; 0 with errno when there is no descriptor.
 */
uint32_t linux_queue_create(void);

/*
 * linux_queue_next: take the next completion, without waiting. Kills the jobs whose deadline has passed.
 *
 * 1       *completion is filled; its buffer is valid until the next call
 * 0       none is waiting
 * -1      not the registered queue, errno EINVAL
 */
int linux_queue_next(uint32_t queue, linux_completion *completion);

/* Jobs that this process has started so far, and the handle of its last background job (0: none). */
typedef struct {
    uint64_t blocking;
    uint64_t background;
    uint32_t last_handle;
} linux_job_counters;

/* linux_jobs_started: read the counters. */
void linux_jobs_started(linux_job_counters *counters);

/* Event history: a ring of the last LINUX_HISTORY_RECORDS records, shared with children. Off at start. */

#define LINUX_HISTORY_RECORDS 256
#define LINUX_HISTORY_BYTES 516 /* of one record; longer ones are cut */

typedef struct {
    uint64_t sequence; /* counts from 1; a gap means that the ring was overrun */
    uint32_t event_class;
    uint32_t length; /* bytes in record: a subtype word and NUL-terminated text */
    int32_t pid;     /* of the process that wrote it */
    unsigned char record[LINUX_HISTORY_BYTES];
} linux_history_record;

/* The class of records that this platform writes itself: subtype 0, and why a job could not be, or stay, in its VRF. */
#define LINUX_HISTORY_VRF_PROBLEM 0x56524600

/* linux_history_enable: switch recording on or off; what was recorded stays. 0, or -1 with errno. */
int linux_history_enable(int on);

/*
 * linux_history_read: copy the oldest record whose sequence is above *cursor, and move the cursor to it.
 *
 * cursor   0 to start from the oldest that is left
 *
 * Returns 1 with a record, 0 when there is none. A record that a child is writing at this moment is passed over.
 */
int linux_history_read(uint64_t *cursor, linux_history_record *record);

/* linux_debug_enable: switch the debug print to standard error on or off, for every flag. Off at start. */
void linux_debug_enable(int on);

/*
 * VRFs. VRF 0 is where the host runs. VRF N is the network namespace vrfN or, where there is none, the device vrfN of
 * the host's own namespace; its own resolver files, if it has any, lie over those of the same name in /etc.
 */

#define LINUX_VRF_NAMESPACES "/run/netns" /* has vrfN */
#define LINUX_VRF_FILES "/etc/netns"      /* has the folder vrfN */

typedef enum {
    LINUX_VRF_HOST,
    LINUX_VRF_NAMESPACE,
    LINUX_VRF_DEVICE,
    LINUX_VRF_UNUSABLE, /* what stands where a namespace should is none: no job can be bound to it */
} linux_vrf_kind;

typedef struct {
    int32_t vrf;
    linux_vrf_kind kind;
} linux_vrf;

/*
 * linux_vrf_list: the VRFs of this machine, by number, VRF 0 first.
 *
 * count   out: how many there are
 *
 * Returns them in a block that the caller releases with free(); NULL with errno.
 */
linux_vrf *linux_vrf_list(size_t *count);

/*
 * linux_vrf_check: try whether a job can be bound to a VRF now. It tries in a child, and waits for at most 10 seconds.
 * That child is a blocking job: linux_jobs_started() counts it, and the buffer that the last spawnlet_fork_fp() returned
 * becomes invalid. It uses no network, and writes neither to standard error nor to the event history.
 *
 * reason, size  receives "" or the reason why not, NUL-terminated, cut to size; NULL with 0 for none.
 *               LINUX_HISTORY_BYTES are enough for every reason
 *
 * Returns 0 when a job can be bound to it; -1 when not. errno stays as it was.
 */
int linux_vrf_check(int32_t vrf, char *reason, size_t size);

/* linux_partition_set: the device partition number, 0 at start. */
void linux_partition_set(uint32_t partition);

#ifdef __cplusplus
}
#endif

#endif
