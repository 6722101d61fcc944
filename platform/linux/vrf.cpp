/*
 * vrf.cpp: VRFs as network namespaces. VRF 0 is the namespace that the host runs in, VRF N is /run/netns/vrfN.
 *
 * Binding fails closed. A caller that does not look at the result is left in a namespace that has nothing but a
 * loopback device which is down, and gets no descriptor any more: daemons that answer for the host's own namespace
 * listen on named sockets, which no network namespace confines. Where even that cannot be had it is ended.
 */
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/nsbind.h"
#include "platform/rtctx.h"

/* Linux routes by namespace, which a job enters by itself: there is no service to be connected to. */
int rtctx_api_init(void)
{
    return 1;
}

void rtctx_api_close(void) {}

/* 0, or an errno. */
static int enter_namespace(const char *path)
{
    /* Whatever lies at that path, opening it must not wait; setns() refuses what is not a network namespace. */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return errno;
    const int error = setns(fd, CLONE_NEWNET) == 0 ? 0 : errno;
    close(fd);
    return error;
}

static void leave_every_network()
{
    const struct rlimit streams_only = {3, 3}; /* fewer, and poll() on those would fail */
    if (setrlimit(RLIMIT_NOFILE, &streams_only) != 0)
        _exit(EXIT_FAILURE);
    if (unshare(CLONE_NEWNET) == 0)
        return;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        _exit(EXIT_FAILURE);
    /* The kernel forgets this with every gain of privilege, here over the namespaces just made. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

int nsbind_set_global_context(int32_t vrf)
{
    if (vrf == 0)
        return 0;
    char path[64];
    snprintf(path, sizeof path, "/run/netns/vrf%d", vrf);
    const int error = vrf > 0 ? enter_namespace(path) : EINVAL;
    if (error == 0)
        return 0;
    fprintf(stderr, "cannot bind to VRF %d: %s: %s\n", vrf, path, strerror(error));
    leave_every_network();
    errno = error;
    return -1;
}
