/*
 * vrf_binding.h: the steps of binding a process to a VRF, which vrf.cpp takes in turn.
 *
 * Those that return an int return 0 or an errno, and have told vrf_failed() why. A process that has failed one of
 * them is half bound, and only fit to be cut off from every network.
 */
#ifndef PLATFORM_LINUX_VRF_BINDING_H
#define PLATFORM_LINUX_VRF_BINDING_H

#include <stdint.h>

/* "vrf2147483647": as long as the name of a device may be. */
constexpr int VRF_NAME_BYTES = 16;

/* vrf_failed: note what went wrong, to be reported with the text of the errno. Returns error. */
int vrf_failed(int error, const char *format, ...) __attribute__((format(printf, 2, 3)));

/*
 * vrf_join_device: from now on every new IPv4 and IPv6 socket is bound to the device that has this name and index, and
 * packets leave by that device and its members only.
 */
int vrf_join_device(const char *device, unsigned index);

/* vrf_leave_device: new sockets are bound to no device, also if those of the host are. */
int vrf_leave_device();

/*
 * vrf_enter_files: a private view of the file system in which the VRF's own resolver files lie over those of /etc,
 * and no caching daemon of the host has a socket.
 */
int vrf_enter_files(const char *vrf_name);

/* vrf_forget_nscd: what nscd has shared with the host is not looked at any more. */
int vrf_forget_nscd();

/* vrf_files_are_in_place: whether they still are, in a process that has entered them. */
bool vrf_files_are_in_place();

/* vrf_still_holds: whether the process is bound as it was; if not, that has been reported. True if it never was. */
bool vrf_still_holds();

#endif
