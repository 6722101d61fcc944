/* other_platform.c: a platform layer on the memory platform that resolves every name to 192.0.2.1. */
#include <string.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

static uint32_t redirect(memory_job *job)
{
    server_addr_info *request = job->arg;
    strcpy(request->serv_name, "192.0.2.1");
    return 0;
}

/* A host of the Linux platform calls this before its first job. */
uint32_t linux_queue_create(void)
{
    memory.on_start = redirect;
    return memory_queue_create();
}
