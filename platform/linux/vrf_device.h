/*
 * vrf_device.h: the parts that vrf_device.cpp uses to bind a process to a device: the list of the interfaces that
 * belong to the device (vrf_links.cpp), a control group for the device (vrf_group.cpp), and the BPF programs that
 * the kernel runs for the processes in that group (vrf_programs.cpp).
 *
 * Each function returns 0, or an errno after it has passed the reason to vrf_failed().
 */
#ifndef PLATFORM_LINUX_VRF_DEVICE_H
#define PLATFORM_LINUX_VRF_DEVICE_H

#include <stdint.h>

constexpr unsigned VRF_LINKS_MAX = 4096;

/* A device and, if it is a VRF device, its members. */
struct vrf_links {
    unsigned count;
    uint32_t index[VRF_LINKS_MAX]; /* index[0] is the device */
};

/* vrf_read_links: ask the kernel which interfaces belong to a device now. E2BIG: more than VRF_LINKS_MAX. */
int vrf_read_links(unsigned device, vrf_links *links);

/* vrf_open_base_group: open the group that contains the groups of all devices. *group: descriptor of its folder. */
int vrf_open_base_group(int *group);

/* vrf_open_group: open the group of a device; create it if it does not exist. *group: descriptor of its folder. */
int vrf_open_group(const char *device, unsigned index, int *group);

/* vrf_join_group: move the calling process into a group. ENODEV or ENOENT if the group has been removed. */
int vrf_join_group(int group);

/* vrf_confine_group: from now on packets of the group's processes leave by the device and its members only. */
int vrf_confine_group(int group, unsigned device);

/* vrf_bind_group: from now on the kernel binds new IPv4 and IPv6 sockets of the group's processes to the device. */
int vrf_bind_group(int group, unsigned device);

#endif
