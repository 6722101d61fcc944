/*
 * nsbind.h: binds a process to a VRF.
 */
#ifndef PLATFORM_NSBIND_H
#define PLATFORM_NSBIND_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * nsbind_set_global_context: bind the calling process to a VRF: from now on it reaches the network through
 * this VRF only.
 *
 * Returns 0 when bound. The library calls it in a job's child and ignores the result, so it must fail closed:
 * a process that could not be bound must not reach any network afterwards.
 */
int nsbind_set_global_context(int32_t vrf);

#ifdef __cplusplus
}
#endif

#endif
