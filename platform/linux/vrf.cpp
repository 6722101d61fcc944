/*
 * vrf.cpp: binding a process to a VRF. VRF 0 is where the host runs; VRF N is the network namespace vrfN or, where there
 * is none, the device vrfN. Either comes with the resolver files in /etc/netns/vrfN.
 *
 * Binding fails closed. A caller that does not look at the result is left in a namespace that has nothing but a
 * loopback device which is down, and gets no descriptor any more: daemons that answer for the host's own namespace
 * listen on named sockets, which no network namespace confines. Where even that cannot be had it is ended.
 */
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/evtrack.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"
#include "platform/nsbind.h"
#include "platform/rtctx.h"

/* What the event history takes: a subtype, of which there is one, and text. */
static struct {
    uint32_t subtype;
    char text[LINUX_HISTORY_BYTES - sizeof(uint32_t)];
} problem;

/* Binding is for good: what was entered hides the way back. */
static constexpr int32_t NO_VRF = -1;
static int32_t bound_vrf = 0;

/* Linux routes by namespace or device, which a job enters by itself: there is no service to be connected to. */
int rtctx_api_init(void)
{
    return 1;
}

void rtctx_api_close(void) {}

int vrf_failed(int error, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(problem.text, sizeof problem.text, format, args);
    va_end(args);
    const size_t length = strlen(problem.text);
    snprintf(problem.text + length, sizeof problem.text - length, ": %s", strerror(error));
    return error;
}

static int enter_namespace(int fd, const char *path)
{
    if (setns(fd, CLONE_NEWNET) != 0) /* refuses what is not a network namespace */
        return vrf_failed(errno, "entering the namespace %s", path);
    return vrf_leave_device(); /* its number would mean another device here */
}

static int enter_device(const char *name, const char *missing_namespace)
{
    const unsigned index = if_nametoindex(name);
    if (index != 0)
        return vrf_join_device(name, index);
    if (errno != ENODEV)
        return vrf_failed(errno, "device %s", name);
    return vrf_failed(errno, "neither a namespace %s nor a device %s", missing_namespace, name);
}

static int enter_network(const char *name)
{
    char path[sizeof LINUX_VRF_NAMESPACES "/" + VRF_NAME_BYTES];
    snprintf(path, sizeof path, LINUX_VRF_NAMESPACES "/%s", name);
    /* Whatever lies at that path, opening it must not wait. */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        const int error = enter_namespace(fd, path);
        close(fd);
        return error;
    }
    struct stat dangling_link;
    if (errno == ENOENT && lstat(path, &dangling_link) != 0)
        return enter_device(name, path);
    return vrf_failed(errno, "%s", path);
}

static int enter(int32_t vrf)
{
    char name[VRF_NAME_BYTES];
    if (vrf < 0)
        return vrf_failed(EINVAL, "negative number");
    if (bound_vrf != 0)
        return vrf_failed(EBUSY, "bound before");
    snprintf(name, sizeof name, "vrf%d", vrf);
    int error = enter_network(name);
    if (error == 0)
        error = vrf_enter_files(name);
    return error != 0 ? error : vrf_forget_nscd();
}

static void leave_every_network()
{
    const struct rlimit streams_only = {3, 3}; /* fewer, and poll() on those would fail */
    if (vrf_forget_nscd() != 0 || setrlimit(RLIMIT_NOFILE, &streams_only) != 0)
        _exit(EXIT_FAILURE);
    if (unshare(CLONE_NEWNET) == 0)
        return;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        _exit(EXIT_FAILURE);
    /* The kernel forgets this with every gain of privilege, here over the namespaces just made. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

static void report(const char *what, int32_t vrf)
{
    fprintf(stderr, "%s VRF %d: %s\n", what, vrf, problem.text);
    evtrack_hist_event(LINUX_HISTORY_VRF_PROBLEM, sizeof problem, &problem);
}

int nsbind_set_global_context(int32_t vrf)
{
    if (vrf >= 0 && vrf == bound_vrf)
        return 0;
    const int error = enter(vrf);
    if (error == 0) {
        bound_vrf = vrf;
        return 0;
    }
    report("cannot bind to", vrf);
    if (bound_vrf != NO_VRF)
        leave_every_network();
    bound_vrf = NO_VRF;
    errno = error;
    return -1;
}

/* The network stays what it was, whoever gets its name. Not so the files: see vrf_files.cpp. */
bool vrf_still_holds()
{
    if (bound_vrf <= 0 || vrf_files_are_in_place())
        return true;
    vrf_failed(ESTALE, "a resolver file was replaced");
    report("no answer from", bound_vrf);
    return false;
}
