/*
 * vrfs.h: which VRFs there are, and whether a job could be bound to one.
 */
#ifndef HOST_VRFS_H
#define HOST_VRFS_H

#include <stdint.h>
#include <stdio.h>

enum vrf_format : int { VRFS_AS_TEXT, VRFS_AS_JSON };

/* print_vrfs: one line a VRF: its number, its kind, its own resolver files. False with errno. */
bool print_vrfs(FILE *out, enum vrf_format format);

/*
 * explain_vrf: try in a child to bind to a VRF. A lookup would only say that the name was not found.
 *
 * Returns NULL when it can be bound to, or why not, to be freed.
 */
char *explain_vrf(int32_t vrf);

#endif
