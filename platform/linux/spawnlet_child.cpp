/*
 * spawnlet_child.cpp: everything that happens between the fork and the exit of a job's child.
 *
 * The child is a copy of a daemon at an arbitrary moment. Before the body runs, the child gives up what belongs to
 * the daemon: signal handlers, descriptors and buffered text. It exits by _exit(), because exit handlers belong to
 * the daemon too.
 */
#include "platform/linux/spawnlet_child.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <poll.h>
#include <signal.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "platform/linux/descriptors.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/spawnlet_jobs.h"
#include "platform/linux/spawnlet_wire.h"
#include "platform/linux/vrf_binding.h"

/* The channel to the parent; -1 in every process that is not the child of a job. */
static int child_channel = -1;

bool in_job_child()
{
    return child_channel >= 0;
}

static void default_signals()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; number++)
        sigaction(number, &action, nullptr);
    /* A closed pipe behind the daemon's text, or a file at its size limit, must not kill the job. */
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGXFSZ, &action, nullptr);
}

static void unblock_signals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

static void die_with_parent(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) /* the parent died before the line above */
        _exit(EXIT_FAILURE);
}

/* nsfs files look regular, but are excluded: the child could enter a namespace through one. */
static bool is_regular_file(int fd)
{
    struct stat status;
    struct statfs system;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && fstatfs(fd, &system) == 0 &&
           system.f_type != NSFS_MAGIC;
}

static int descriptor_of(FILE *stream)
{
    return stream != nullptr ? fileno(stream) : -1;
}

/* Discards the text that the daemon has buffered: the daemon writes it itself. */
static void forget_buffered_text(const child_plan *plan)
{
    for (FILE *stream : {stdout, stderr, plan->out, plan->err})
        if (stream != nullptr)
            __fpurge(stream);
}

/* Whether there is room for all text, so that writing does not block, and a reader, so that it does not fail. */
static bool takes_text_at_once(FILE *stream)
{
    const int fd = fileno(stream);
    struct pollfd room = {.fd = fd, .events = POLLOUT, .revents = 0};
    return is_regular_file(fd) ||
           (poll(&room, 1, 0) == 1 && room.revents == POLLOUT && __fpending(stream) <= PIPE_BUF);
}

static void flush_own_text(const child_plan *plan, bool may_wait)
{
    for (FILE *stream : {stdout, stderr, plan->out, plan->err})
        if (stream != nullptr && (may_wait || takes_text_at_once(stream)))
            fflush(stream);
}

/*
 * Regular files, such as the debug log, stay open: no process waits for them to be closed. Sockets, pipes and event
 * descriptors are closed: otherwise the daemon's peers would not notice when the daemon closes them.
 */
static void close_if_unneeded(const child_plan *plan, int fd)
{
    const bool is_needed = fd <= STDERR_FILENO || fd == child_channel || fd == descriptor_of(plan->in) ||
                           fd == descriptor_of(plan->out) || fd == descriptor_of(plan->err);
    if (!is_needed && !is_regular_file(fd))
        close(fd);
}

/*
 * Whether every open descriptor is below the limit. A child's descriptor table is as large as its highest descriptor
 * requires. select() ignores descriptors beyond the end of the table, and fails with EBADF for a closed one within
 * it. It must not be called for an open one: that would poll its file, which might then consider the host's events
 * delivered.
 */
static bool none_is_open_from(int limit)
{
    fd_set beyond;
    struct timeval no_wait = {};
    FD_ZERO(&beyond);
    FD_SET(limit, &beyond);
    return fcntl(limit, F_GETFD) < 0 && select(limit + 1, &beyond, nullptr, nullptr, &no_wait) == 0;
}

/* Returns false if there may be more. Most daemons have few, and listing /proc/self/fd takes half as long as a fork. */
static bool close_few(const child_plan *plan)
{
    for (const int limit : {64, 128}) { /* sizes of the kernel's descriptor tables */
        if (!none_is_open_from(limit))
            continue;
        for (int fd = 0; fd < limit; fd++)
            if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF)
                close_if_unneeded(plan, fd);
        return true;
    }
    return false;
}

/* Returns false if the list is incomplete. */
static bool close_listed(const child_plan *plan)
{
    DIR *open_descriptors = opendir("/proc/self/fd");
    if (open_descriptors == nullptr)
        return false;
    const struct dirent *entry;
    while ((errno = 0, entry = readdir(open_descriptors)) != nullptr) {
        const int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd != dirfd(open_descriptors))
            close_if_unneeded(plan, fd);
    }
    const bool is_complete = errno == 0;
    closedir(open_descriptors);
    return is_complete;
}

static void close_inherited(const child_plan *plan)
{
    if (close_few(plan) || close_listed(plan))
        return;
    /* The daemon may run without /proc. */
    for (int fd = 0, limit = getdtablesize(); fd < limit; fd++)
        close_if_unneeded(plan, fd);
}

/* Copies a descriptor above 2, because connect_streams() is about to replace descriptors 0 to 2. */
static int copy_above_streams(int fd)
{
    const int copy = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1;
    if (copy >= 0)
        return copy;
    const int null_device = above_streams(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null_device < 0)
        _exit(EXIT_FAILURE); /* the next socket would become a standard stream and get the trace */
    return null_device;
}

static void connect_streams(const child_plan *plan)
{
    const int original[] = {descriptor_of(plan->in), descriptor_of(plan->out), descriptor_of(plan->err)};
    int copy[3];
    for (int i = 0; i < 3; i++)
        copy[i] = original[i] == i && fcntl(i, F_SETFD, 0) == 0 ? i : copy_above_streams(original[i]);
    for (int i = 0; i < 3; i++) {
        if (copy[i] == i)
            continue;
        dup2(copy[i], i);
        close(copy[i]);
    }
}

/* Waits until the parent holds our pidfd: if we exited before that, our pid could be reused. */
static void pass_gate(int channel)
{
    char gate;
    ssize_t got;
    do
        got = recv(channel, &gate, sizeof gate, 0);
    while (got < 0 && errno == EINTR);
    if (got != sizeof gate)
        _exit(EXIT_FAILURE);
}

void child_run(const child_plan *plan)
{
    default_signals();
    die_with_parent(plan->parent);
    close(plan->parent_channel);
    child_channel = above_streams(plan->channel);
    if (child_channel < 0)
        _exit(EXIT_FAILURE);
    forget_buffered_text(plan);
    close_inherited(plan);
    connect_streams(plan);
    pass_gate(child_channel);
    alarm(plan->seconds);
    unblock_signals();

    const int32_t result = plan->body(plan->arg);
    if (!vrf_still_holds()) /* no answer is better than one from another VRF */
        _exit(EXIT_FAILURE);
    /* Flush first: the host may exit on the result. But a slow reader must not delay the result. */
    flush_own_text(plan, false);
    wire_send(child_channel, FRAME_RESULT, {reinterpret_cast<const unsigned char *>(&result), sizeof result});
    alarm(JOB_LEAVING_SECONDS);
    flush_own_text(plan, true);
    _exit(EXIT_SUCCESS);
}

int spawnlet_done(const void *buffer, uint32_t size)
{
    if (!in_job_child() || (buffer == nullptr && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    if (size > LINUX_HANDBACK_MAX) {
        /* The announced size tells the parent why there is no answer. */
        const frame_header header = {.kind = FRAME_HANDBACK, .size = size};
        send(child_channel, &header, sizeof header, MSG_NOSIGNAL);
        errno = EMSGSIZE;
        return -1;
    }
    return wire_send(child_channel, FRAME_HANDBACK, {static_cast<const unsigned char *>(buffer), size});
}
