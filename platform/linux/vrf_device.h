/*
 * vrf_device.h: what vrf_device.cpp binds a process to a device with: a control group, the programs that the kernel runs
 * for the processes in it, and the interfaces that belong to the device.
 *
 * Functions that return an int return 0 or an errno, and have told vrf_failed() why.
 */
#ifndef PLATFORM_LINUX_VRF_DEVICE_H
#define PLATFORM_LINUX_VRF_DEVICE_H

#include <stdint.h>

constexpr unsigned VRF_LINKS_MAX = 4096;

/* A device and, if it is a VRF device, its members. */
struct vrf_links {
    unsigned count;
    uint32_t index[VRF_LINKS_MAX]; /* the device comes first */
};

/* vrf_read_links: ask the kernel which interfaces belong to a device now. E2BIG if there are too many. */
int vrf_read_links(unsigned device, vrf_links *links);

/* vrf_open_base_group: the group that those of devices lie below. *group is a descriptor of its folder. */
int vrf_open_base_group(int *group);

/* vrf_open_group: the group of a device, made if need be. */
int vrf_open_group(const char *device, unsigned index, int *group);

/* vrf_join_group: move the process. ENODEV or ENOENT if the group has been removed. */
int vrf_join_group(int group);

/* vrf_confine_group: packets of the group's processes leave by the device and its members only. */
int vrf_confine_group(int group, unsigned device);

/* vrf_bind_group: new IPv4 and IPv6 sockets of the group's processes are bound to the device. */
int vrf_bind_group(int group, unsigned device);

#endif
