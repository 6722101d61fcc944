/*
 * platmgr.h: the partition of the device that this process runs in.
 */
#ifndef PLATFORM_PLATMGR_H
#define PLATFORM_PLATMGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* platmgr_partition_get: return the number of the device partition. Its low 16 bits are in the debug log's name. */
uint32_t platmgr_partition_get(void);

#ifdef __cplusplus
}
#endif

#endif
