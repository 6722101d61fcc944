/*
 * spawnlet_child.cpp: everything that happens between the fork and the exit of a job's child.
 *
 * The child is a copy of a daemon at an arbitrary moment. Before the body runs it sheds what belongs to the
 * daemon: signal handlers, descriptors, text that waits in buffers. It leaves by _exit(), since exit handlers
 * are the daemon's too.
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
    /* A reader of the daemon's text who has gone, or a file that may not grow, is no end of the job. */
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
    if (getppid() != parent) /* it died before the line above */
        _exit(EXIT_FAILURE);
}

/* Not the kernel's own, which say that they are regular files: through one a namespace could be entered. */
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

/* Text that the daemon has buffered is the daemon's to write. */
static void forget_buffered_text(const child_plan *plan)
{
    for (FILE *stream : {stdout, stderr, plan->out, plan->err})
        if (stream != nullptr)
            __fpurge(stream);
}

/* Room for all of it, so that writing it out cannot wait for a reader, and a reader, so that it cannot end us. */
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
 * Regular files may stay, the debug log is one: they keep nothing alive that others wait for. Not so sockets,
 * pipes and event descriptors, where the daemon's peers would not see it close them.
 */
static void shed(const child_plan *plan, int fd)
{
    const bool is_needed = fd <= STDERR_FILENO || fd == child_channel || fd == descriptor_of(plan->in) ||
                           fd == descriptor_of(plan->out) || fd == descriptor_of(plan->err);
    if (!is_needed && !is_regular_file(fd))
        close(fd);
}

/*
 * Whether every open descriptor is below the limit. A child's table is as large as the highest descriptor needs, and
 * select() leaves alone what a set has beyond the table's end. It takes offence at one that is not open. Never asked
 * about one that is: its file would be, and might take the host's events for delivered.
 */
static bool none_is_open_from(int limit)
{
    fd_set beyond;
    struct timeval no_wait = {};
    FD_ZERO(&beyond);
    FD_SET(limit, &beyond);
    return fcntl(limit, F_GETFD) < 0 && select(limit + 1, &beyond, nullptr, nullptr, &no_wait) == 0;
}

/* false: there may be more of them. The usual daemon has few, and to have them listed takes as long as half a fork. */
static bool shed_few(const child_plan *plan)
{
    for (const int limit : {64, 128}) { /* sizes of the kernel's tables */
        if (!none_is_open_from(limit))
            continue;
        for (int fd = 0; fd < limit; fd++)
            if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF)
                shed(plan, fd);
        return true;
    }
    return false;
}

/* false: not all are known. */
static bool shed_listed(const child_plan *plan)
{
    DIR *open_descriptors = opendir("/proc/self/fd");
    if (open_descriptors == nullptr)
        return false;
    const struct dirent *entry;
    while ((errno = 0, entry = readdir(open_descriptors)) != nullptr) {
        const int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd != dirfd(open_descriptors))
            shed(plan, fd);
    }
    const bool is_complete = errno == 0;
    closedir(open_descriptors);
    return is_complete;
}

static void close_inherited(const child_plan *plan)
{
    if (shed_few(plan) || shed_listed(plan))
        return;
    /* A daemon may live where there is no /proc. */
    for (int fd = 0, limit = getdtablesize(); fd < limit; fd++)
        shed(plan, fd);
}

/* A copy out of the way of descriptors 0 to 2, which are about to change. */
static int copy_above_streams(int fd)
{
    const int copy = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1;
    if (copy >= 0)
        return copy;
    const int null_device = above_streams(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null_device < 0)
        _exit(EXIT_FAILURE); /* else the next socket would become a standard stream, and get the trace */
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

/* The parent opens the gate once it holds our pidfd; before that we must not exit and lose our pid. */
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
    if (!vrf_still_holds()) /* better no answer than one of another VRF */
        _exit(EXIT_FAILURE);
    /* Text first, or a host that ends with the answer takes it along; but no answer waits for a reader of text. */
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
        /* The size alone tells the parent why there is no answer. */
        const frame_header header = {.kind = FRAME_HANDBACK, .size = size};
        send(child_channel, &header, sizeof header, MSG_NOSIGNAL);
        errno = EMSGSIZE;
        return -1;
    }
    return wire_send(child_channel, FRAME_HANDBACK, {static_cast<const unsigned char *>(buffer), size});
}
