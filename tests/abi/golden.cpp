/* golden: write the records of a lookup that continues in the background to request.bin, options.bin and result.bin. */
#include <err.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

/* The time of the answer. */
extern "C" time_t __wrap_time(time_t *)
{
    return 0x5a6b7c8d;
}

static void write_record(const char *name, const void *record, size_t size)
{
    FILE *file = fopen(name, "w");
    if (file == nullptr || fwrite(record, 1, size, file) != size || fclose(file) != 0)
        err(1, "%s", name);
}

static const void *request; /* gets its handle later */

/* The last job that starts is the one in the background. */
static uint32_t note_start(memory_job *job)
{
    request = job->arg;
    write_record("options.bin", job->options, sizeof *job->options);
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
    if (getaddrinfo_async_mq3("four.test", "8080", &hints, 0x10203, &found) != -3)
        errx(1, "no job in the background");
    write_record("request.bin", request, sizeof(server_addr_info));
    memory_queue_next(queue, &done);
    write_record("result.bin", done.ret_info, done.ret_info_size);
    return 0;
}
