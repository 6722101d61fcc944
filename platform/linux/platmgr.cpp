/*
 * platmgr.cpp: the partition number. On Linux the host sets it with linux_partition_set().
 */
#include "platform/platmgr.h"

#include "platform/linux/linux_platform.h"

static uint32_t partition;

void linux_partition_set(uint32_t number)
{
    partition = number;
}

uint32_t platmgr_partition_get(void)
{
    return partition;
}
