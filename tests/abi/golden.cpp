/* golden: write options, request and result of a lookup that continues in the background to standard error. */
#include <netinet/in.h>
#include <stdlib.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

/* The time of the answer. */
extern "C" time_t __wrap_time(time_t *)
{
    return 0x5a6b7c8d;
}

static const void *request; /* gets its handle later */

/* The last job that starts is the one in the background. */
static uint32_t note_start(memory_job *job)
{
    request = job->arg;
    if (job->in_background)
        fwrite(job->options, sizeof *job->options, 1, stderr);
    return 0;
}

int main()
{
    const struct addrinfo hints = {
        AI_CANONNAME | AI_NUMERICSERV, AF_INET6, SOCK_DGRAM, IPPROTO_UDP, 0, nullptr, nullptr, nullptr};
    struct addrinfo *found = nullptr;
    memory_completion done;
    srand(1);
    memory.on_start = note_start;
    memory.job_seconds = 200; /* between the timeouts of a lookup and of its background job */
    memory.next_handle = 0xa1b2c3d4;
    memory.vrfs = 0x10203;
    const uint32_t queue = memory_queue_create();
    dns_cache_init(queue, 0);
    getaddrinfo_async_mq3("four.test", "8080", &hints, 0x10203, &found);
    fwrite(request, sizeof(server_addr_info), 1, stderr);
    memory_queue_next(queue, &done);
    fwrite(done.ret_info, done.ret_info_size, 1, stderr);
    return 0;
}
