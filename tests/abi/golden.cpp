/*
 * golden: write the records of a lookup that continues in the background to request.bin, options.bin and result.bin. The
 * result must decode into what the resolver returned.
 */
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

static void require(bool met, const char *condition)
{
    if (!met)
        errx(1, "not met: %s", condition);
}
#define REQUIRE(condition) require(condition, #condition)

static void write_record(const char *name, const void *record, size_t size)
{
    FILE *file = fopen(name, "w");
    REQUIRE(file != nullptr && fwrite(record, 1, size, file) == size && fclose(file) == 0);
}

/* They belong to the background job, which starts when the blocking job has timed out. */
static const void *request;
static job_options options;

static uint32_t note_start(memory_job *job)
{
    request = job->arg;
    options = *job->options;
    return 0;
}

int main()
{
    const struct addrinfo hints = {
        AI_CANONNAME | AI_NUMERICSERV, AF_INET6, SOCK_DGRAM, IPPROTO_UDP, 0, nullptr, nullptr, nullptr};
    struct addrinfo *found = nullptr, *expected = nullptr;
    memory_completion done;
    srand(1);
    memory.on_start = note_start;
    memory.job_seconds = 200; /* between the timeouts of a lookup and of its background job */
    memory.next_handle = 0xa1b2c3d4;
    memory.vrfs = 0x10203;
    const uint32_t queue = memory_queue_create();
    dns_cache_init(queue, 0);
    REQUIRE(getaddrinfo_async_mq3("four.test", "8080", &hints, 0x10203, &found) == -3);
    write_record("request.bin", request, sizeof(server_addr_info));
    write_record("options.bin", &options, sizeof options);
    REQUIRE(memory_queue_next(queue, &done) == 1 && done.ret_info != nullptr);
    write_record("result.bin", done.ret_info, done.ret_info_size);

    REQUIRE(get_res_back(static_cast<server_spawnlet_data_t *>(done.ret_info), &found) == 0);
    REQUIRE(getaddrinfo("four.test", "8080", nullptr, &expected) == 0);
    for (const struct addrinfo *a = found, *b = expected; a != nullptr || b != nullptr;
         a = a->ai_next, b = b->ai_next) {
        REQUIRE(a != nullptr && b != nullptr);
        REQUIRE(a->ai_flags == b->ai_flags && a->ai_family == b->ai_family);
        REQUIRE(a->ai_socktype == b->ai_socktype && a->ai_protocol == b->ai_protocol);
        REQUIRE(a->ai_addrlen == b->ai_addrlen && memcmp(a->ai_addr, b->ai_addr, a->ai_addrlen) == 0);
        REQUIRE((a->ai_canonname == nullptr) == (b->ai_canonname == nullptr));
        REQUIRE(a->ai_canonname == nullptr || strcmp(a->ai_canonname, b->ai_canonname) == 0);
    }
    freeaddrinfo(found);
    freeaddrinfo(expected);
    return 0;
}
