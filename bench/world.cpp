/*
 * world.cpp: fills the cache, sets the library's clock and takes completions for the benchmarks.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>

#include "bench/bench.h"

static constexpr int LIFETIME_SECONDS = 60;

static time_t clock_offset;
static int filled_with; /* addresses of each record, all fresh; 0: other content */

void give_up(const char *what)
{
    fprintf(stderr, "bench: %s\n", what);
    exit(EXIT_FAILURE);
}

/* Replaces time() for the library: a record stored while clock_offset is negative is old. */
extern "C" time_t time(time_t *out)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    now.tv_sec += clock_offset;
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

static uint32_t the_queue()
{
    static const uint32_t queue = [] {
        const uint32_t made = linux_queue_create();
        dns_cache_init(made, 0);
        dns_cache_set_timeout(LIFETIME_SECONDS);
        return made;
    }();
    return queue;
}

const char *server_name(int position)
{
    static char names[MAX_CACHE_ENTRIES][16];
    snprintf(names[position], sizeof names[position], "server-%02d.files", position);
    return names[position];
}

server_spawnlet_data_t record_of(const char *name, int addresses)
{
    server_spawnlet_data_t record = {};
    snprintf(record.serv_id, sizeof record.serv_id, "%s:%d:0", name, PORT);
    snprintf(record.serv_name, sizeof record.serv_name, "%s", name);
    snprintf(record.service, sizeof record.service, "%s", SERVICE);
    for (int i = 0; i < addresses; i++) {
        const bool ipv6 = i % 2 == 1;
        record.ai_hdr[i].ai_family = ipv6 ? AF_INET6 : AF_INET;
        record.ai_hdr[i].ai_socktype = SOCK_DGRAM;
        record.ai_hdr[i].ai_addrlen = ipv6 ? 28 : 16;
        uint8_t *address = ipv6 ? record.addr6[i] : record.addr[i];
        address[0] = ipv6 ? AF_INET6 : AF_INET;
        address[3] = PORT;
        address[7] = static_cast<uint8_t>(i + 1);
    }
    record.num_entries = addresses;
    record.status = ENTRY_RESOLVED;
    return record;
}

void start_job(const char *name)
{
    the_queue();
    if (add_entry_to_dns_cache(name, PORT, 0, nullptr) != 0)
        give_up("a job could not be started");
}

linux_completion next_completion()
{
    linux_completion done;
    int taken;
    while ((taken = linux_queue_next(the_queue(), &done)) == 0) {
        struct pollfd queue = {.fd = static_cast<int>(the_queue()), .events = POLLIN, .revents = 0};
        poll(&queue, 1, -1);
    }
    if (taken < 0)
        give_up("the queue is broken");
    return done;
}

void deliver(const linux_completion &done, const server_spawnlet_data_t *record)
{
    server_spawnlet_data_t answer = {};
    if (record != nullptr)
        answer = *record;
    dnscache_spawnletcb_job_done(done.handle, LINUX_JOB_OK, record != nullptr ? &answer : nullptr,
                                 record != nullptr ? sizeof answer : 0, 0);
}

void wait_for_children()
{
    while (waitpid(-1, nullptr, 0) >= 0 || errno == EINTR)
        continue;
}

void empty_cache()
{
    for (int i = 0; i < MAX_CACHE_ENTRIES; i++)
        remove_entry_from_dns_cache(server_name(i));
    filled_with = 0;
}

void fill_cache(int addresses, int expired)
{
    empty_cache();
    for (int i = MAX_CACHE_ENTRIES - 1; i >= 0; i--) {
        const bool is_old = i >= MAX_CACHE_ENTRIES - expired;
        const server_spawnlet_data_t record = record_of(server_name(i), addresses);
        start_job(server_name(i));
        clock_offset = is_old ? -2 * LIFETIME_SECONDS : 0;
        deliver(next_completion(), &record);
        clock_offset = 0;
    }
    wait_for_children();
}

void fill_cache_with(int addresses)
{
    if (filled_with != addresses)
        fill_cache(addresses, 0);
    filled_with = addresses;
}

int look_up(const char *name, int vrf)
{
    static const struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
    if (getaddrinfo_async_mq3(name, SERVICE, &hints, vrf, &chain) != 0)
        return 0;
    const int addresses = get_list_length(chain);
    freeaddrinfo(chain);
    return addresses;
}
