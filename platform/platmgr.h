/*
 * platmgr.h: where on the device this process runs.
 */
#ifndef PLATFORM_PLATMGR_H
#define PLATFORM_PLATMGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* platmgr_partition_get: number of the device partition. Its low 16 bits name the debug log. */
uint32_t platmgr_partition_get(void);

#ifdef __cplusplus
}
#endif

#endif
