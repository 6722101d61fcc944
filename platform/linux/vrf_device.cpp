/*
 * vrf_device.cpp: binding to a VRF that is a device of the host's own network namespace. The system's resolver does
 * not know about VRFs, so the kernel acts through the job's control group: it binds each new socket to the device
 * before the process can use the socket, and it drops each packet that would leave by an interface that does not
 * belong to the device.
 *
 * Binding sockets is not enough. Even for a bound socket, the kernel's first routing rule delivers packets for
 * addresses of the default VRF (such as 127.0.0.53) locally, and if the VRF's table has no default route, not even an
 * unreachable one, the kernel continues with the main table.
 */
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/linux/vrf_binding.h"
#include "platform/linux/vrf_device.h"

static constexpr unsigned NO_DEVICE = 0;

static int device_of_socket(int family, int type, unsigned *index)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    socklen_t size = sizeof *index;
    const int error = getsockopt(fd, SOL_SOCKET, SO_BINDTOIFINDEX, index, &size) == 0 ? 0 : errno;
    close(fd);
    return error;
}

/*
 * Tests new sockets, since an attached program may have no effect: a program of an ancestor group may override it,
 * and before Linux 5.15 the kernel runs no such program once net_cls is in use.
 */
static int check_sockets(unsigned index)
{
    constexpr struct {
        int family, type;
    } kinds[] = {
        {AF_INET, SOCK_DGRAM}, {AF_INET, SOCK_STREAM}, {AF_INET6, SOCK_DGRAM}, {AF_INET6, SOCK_STREAM}};
    for (const auto &kind : kinds) {
        unsigned bound = 0;
        const int error = device_of_socket(kind.family, kind.type, &bound);
        if (error == EAFNOSUPPORT)
            continue;
        if (error != 0)
            return vrf_failed(error, "device of a socket");
        if (bound != index)
            return vrf_failed(EXDEV, "sockets are bound to device %u, not %u", bound, index);
    }
    return 0;
}

/* Joins the group last: if confining the group fails, the process has not joined it. */
static int enter_group(const char *device, unsigned index, int *group)
{
    int error = vrf_open_group(device, index, group);
    if (error != 0)
        return error;
    error = vrf_confine_group(*group, index);
    if (error == 0)
        error = vrf_join_group(*group);
    if (error != 0)
        close(*group);
    return error;
}

/* While a device is renamed, another job may mistake its group for that of a deleted device, and remove it: retry. */
static int enter_group_with_retries(const char *device, unsigned index, int *group)
{
    int error = ENODEV;
    for (int tries = 0; tries < 3 && (error == ENODEV || error == ENOENT); tries++)
        error = enter_group(device, index, group);
    return error;
}

int vrf_join_device(const char *device, unsigned index)
{
    int group;
    int error = enter_group_with_retries(device, index, &group);
    if (error != 0)
        return error;
    error = check_sockets(index);
    /*
     * EXDEV: new sockets are not bound to this device, as in the first job of a group. Later jobs do not load the
     * program again, because before Linux 5.11 each loaded program counts against RLIMIT_MEMLOCK.
     */
    if (error == EXDEV) {
        error = vrf_bind_group(group, index);
        if (error == 0)
            error = check_sockets(index);
    }
    close(group);
    return error;
}

int vrf_leave_device()
{
    if (check_sockets(NO_DEVICE) == 0)
        return 0;
    int group;
    int error = vrf_open_base_group(&group);
    if (error != 0)
        return error;
    error = vrf_join_group(group);
    close(group);
    return error != 0 ? error : check_sockets(NO_DEVICE);
}
