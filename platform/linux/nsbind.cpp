/*
 * nsbind.cpp: binding a process to a VRF: to its network, and to its resolver files in /etc/netns/vrfN. VRF 0 is
 * where the host runs. vrf_find.cpp decides what VRF N is; vrf_device.cpp binds the sockets if it is a device.
 *
 * Binding fails closed, because the caller may ignore the result. When binding fails, the process is moved to a
 * namespace whose only device is a loopback that is down, and it can open no more descriptors: daemons that answer
 * for the host's own namespace listen on named sockets, which no network namespace confines. If even that fails, the
 * process exits.
 */
#include "platform/nsbind.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/evtrack.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"
#include "platform/linux/vrf_find.h"

/* A record of the event history: a subtype, always 0, and text. */
static struct {
    uint32_t subtype;
    char text[LINUX_HISTORY_BYTES - sizeof(uint32_t)];
} problem;

static constexpr int32_t NO_VRF = -1;

/* A bound process cannot be bound again: it no longer sees the namespaces and files of the host. */
static int32_t bound_vrf = 0;

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

const char *vrf_problem()
{
    return problem.text;
}

static int enter_namespace(const vrf_network *network)
{
    if (setns(network->namespace_fd, CLONE_NEWNET) != 0)
        return vrf_failed(errno, "entering the namespace %s", network->path);
    return vrf_leave_device(); /* its index would mean another device here */
}

static int enter_network(const vrf_network *network)
{
    if (network->kind == LINUX_VRF_NAMESPACE)
        return enter_namespace(network);
    return vrf_join_device(network->name, network->device);
}

static int enter(int32_t vrf)
{
    vrf_network network;
    int error = vrf_find(vrf, &network);
    if (error != 0)
        return error;
    error = enter_network(&network);
    vrf_release(&network);
    if (error == 0)
        error = vrf_enter_files(network.name);
    return error != 0 ? error : vrf_forget_nscd();
}

int vrf_bind(int32_t vrf)
{
    if (vrf < 0)
        return vrf_failed(EINVAL, "negative number");
    if (vrf == bound_vrf)
        return 0;
    if (bound_vrf != 0)
        return vrf_failed(EBUSY, "bound before");
    return enter(vrf);
}

static void leave_every_network()
{
    const struct rlimit streams_only = {3, 3}; /* with fewer, poll() on the streams would fail */
    if (vrf_forget_nscd() != 0 || setrlimit(RLIMIT_NOFILE, &streams_only) != 0)
        _exit(EXIT_FAILURE);
    if (unshare(CLONE_NEWNET) == 0)
        return;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        _exit(EXIT_FAILURE);
    /* The kernel clears this whenever a process gains privileges, here those over its new namespaces. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

static void report(const char *what, int32_t vrf)
{
    fprintf(stderr, "%s VRF %d: %s\n", what, vrf, problem.text);
    evtrack_hist_event(LINUX_HISTORY_VRF_PROBLEM, sizeof problem, &problem);
}

int nsbind_set_global_context(int32_t vrf)
{
    const int error = vrf_bind(vrf);
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

/* The network stays the same when its name changes. The resolver files may change: see vrf_files.cpp. */
bool vrf_still_holds()
{
    if (bound_vrf <= 0 || vrf_files_are_in_place())
        return true;
    vrf_failed(ESTALE, "a resolver file was replaced");
    report("no answer from", bound_vrf);
    return false;
}
