/*
 * vrfs.h: the list of VRFs, and whether a job can be bound to one.
 */
#ifndef HOST_VRFS_H
#define HOST_VRFS_H

#include <stdint.h>
#include <stdio.h>

enum vrf_format : int { VRFS_AS_TEXT, VRFS_AS_JSON };

/* print_vrfs: print one line per VRF: its number, kind and own resolver files. Returns false with errno. */
bool print_vrfs(FILE *out, enum vrf_format format);

/*
 * explain_vrf: why no job can be bound to a VRF. A lookup there would only report that the name was not found.
 *
 * Returns the reason in printable characters, released with g_free(); NULL when a job can be bound.
 */
char *explain_vrf(int32_t vrf);

#endif
