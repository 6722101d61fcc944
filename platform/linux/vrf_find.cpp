/*
 * vrf_find.cpp: what VRF N is.
 */
#include "platform/linux/vrf_find.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

/* A file of another type gets the errno that setns() would return for it. */
static int check_namespace(vrf_network *network)
{
    if (ioctl(network->namespace_fd, NS_GET_NSTYPE) == CLONE_NEWNET) {
        network->kind = LINUX_VRF_NAMESPACE;
        return 0;
    }
    vrf_release(network);
    network->namespace_fd = -1;
    return vrf_failed(EINVAL, "entering the namespace %s", network->path);
}

static int find_device(vrf_network *network)
{
    network->device = if_nametoindex(network->name);
    if (network->device != 0) {
        network->kind = LINUX_VRF_DEVICE;
        return 0;
    }
    if (errno != ENODEV)
        return vrf_failed(errno, "device %s", network->name);
    network->is_missing = true;
    return vrf_failed(errno, "neither a namespace %s nor a device %s", network->path, network->name);
}

int vrf_find(int32_t vrf, vrf_network *network)
{
    *network = {};
    network->kind = LINUX_VRF_UNUSABLE;
    snprintf(network->name, sizeof network->name, "vrf%d", vrf);
    snprintf(network->path, sizeof network->path, LINUX_VRF_NAMESPACES "/%s", network->name);
    /* Non-blocking: the path may lead to a file whose open() would wait, such as a FIFO. */
    network->namespace_fd = open(network->path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (network->namespace_fd >= 0)
        return check_namespace(network);
    struct stat dangling_link;
    if (errno == ENOENT && lstat(network->path, &dangling_link) != 0)
        return find_device(network);
    return vrf_failed(errno, "%s", network->path);
}

void vrf_release(const vrf_network *network)
{
    if (network->namespace_fd >= 0)
        close(network->namespace_fd);
}
