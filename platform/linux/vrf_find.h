/*
 * vrf_find.h: what VRF N is: the network namespace vrfN; else the device vrfN of the caller's own namespace; else
 * nothing. If the path of the namespace exists but is not a network namespace, the VRF is unusable, also if there is
 * a device.
 */
#ifndef PLATFORM_LINUX_VRF_FIND_H
#define PLATFORM_LINUX_VRF_FIND_H

#include <stdint.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"

struct vrf_network {
    linux_vrf_kind kind;
    bool is_missing;           /* there is neither a namespace nor a device, nor anything else at the path */
    char name[VRF_NAME_BYTES]; /* "vrfN" */
    char path[sizeof LINUX_VRF_NAMESPACES "/" + VRF_NAME_BYTES]; /* where its namespace is, or would be */
    int namespace_fd;                                            /* LINUX_VRF_NAMESPACE; else -1 */
    unsigned device;                                             /* LINUX_VRF_DEVICE: its index; else 0 */
};

/*
 * vrf_find: find the network of VRF N, N > 0. The descriptor and the index in *network stay valid for what was found,
 * also if another namespace or device gets the name.
 *
 * Returns 0 with a namespace or a device; the caller then calls vrf_release(). Else returns an errno, having called
 * vrf_failed(), with kind LINUX_VRF_UNUSABLE.
 */
int vrf_find(int32_t vrf, vrf_network *network);

/* vrf_release: close the descriptor, if there is one. */
void vrf_release(const vrf_network *network);

#endif
