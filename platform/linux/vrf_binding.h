/*
 * vrf_binding.h: the steps of binding a process to a VRF, which nsbind.cpp calls in order.
 *
 * Functions that return an int return 0 or an errno; before they return an errno they call vrf_failed(). A process in
 * which one of them failed is partly bound: it must be cut off from every network, or exit.
 */
#ifndef PLATFORM_LINUX_VRF_BINDING_H
#define PLATFORM_LINUX_VRF_BINDING_H

#include <stdint.h>

/* Room for "vrf2147483647". The name of a device has the same limit. */
constexpr int VRF_NAME_BYTES = 16;

/* vrf_failed: store the reason of a failure: this text, and that of the errno. Returns error. */
int vrf_failed(int error, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* vrf_problem: the last reason that vrf_failed() stored. */
const char *vrf_problem();

/*
 * vrf_bind: call all steps. Does nothing when nsbind_set_global_context() has bound the process to this VRF already;
 * EBUSY when it has bound it to another one.
 */
int vrf_bind(int32_t vrf);

/*
 * vrf_join_device: from now on the kernel binds every new IPv4 and IPv6 socket to the device that has this name and
 * index, and packets leave by that device and its members only.
 */
int vrf_join_device(const char *device, unsigned index);

/* vrf_leave_device: new sockets are bound to no device, even if the host's are. */
int vrf_leave_device();

/*
 * vrf_enter_files: make a private view of the file system. In it the VRF's own resolver files are mounted over those
 * of /etc, and the sockets of the host's caching daemons are hidden.
 */
int vrf_enter_files(const char *vrf_name);

/* vrf_forget_nscd: stop using the tables that nscd has shared with the host. */
int vrf_forget_nscd();

/* vrf_files_are_in_place: whether the files that vrf_enter_files() mounted are still in place. */
bool vrf_files_are_in_place();

/* vrf_still_holds: whether the process is still bound. If not, it reports that. True if it was never bound. */
bool vrf_still_holds();

#endif
