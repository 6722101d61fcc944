/*
 * bench.h: what the benchmarks share: names, filling the cache, taking completions, reaping children.
 *
 * Like a host, the benchmarks use only the exported calls of the library. scripts/bench puts the names into the hosts
 * file and the name servers of its laboratory.
 */
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <benchmark/benchmark.h>
#include <netdb.h>
#include <stddef.h>

#include <chrono>

#include "dnscache/dnscache.h"
#include "platform/linux/linux_platform.h"

constexpr char SERVICE[] = "123";
constexpr int PORT = 123;

/* Each has two IPv4 and two IPv6 addresses. */
constexpr char FILES_NAME[] = "four.files"; /* in the hosts file */
constexpr char DNS_NAME[] = "four.dns";     /* answered by the dnsmasq on loopback */

/* One IPv4 and one IPv6 address: in VRF 0 from the dnsmasq on loopback, in VRF 1 from the name server of the VRF. */
constexpr char VRF_NAME[] = "time.lab";

/* server_name: the name in the record at this position of a cache filled by fill_cache(); 0 is the head. */
const char *server_name(int position);

/* record_of: the record of a job for a host in VRF 0, with one to four addresses, IPv4 and IPv6 alternately. */
server_spawnlet_data_t record_of(const char *name, int addresses);

/*
 * fill_cache: empty the cache, then fill it with MAX_CACHE_ENTRIES records of `addresses` addresses; the oldest
 * `expired` of them are expired. Starts a background job for each, and delivers record_of() instead of the child's
 * record.
 */
void fill_cache(int addresses, int expired);

/* fill_cache_with: fill_cache(addresses, 0), unless the cache has this content already. */
void fill_cache_with(int addresses);

void empty_cache();

/* start_job: add_entry_to_dns_cache() for a host in VRF 0. The process exits if that fails. */
void start_job(const char *name);

/* next_completion: wait for a completion and return it. */
linux_completion next_completion();

/* deliver: pass a completion to the library with this record, or without a record when it is NULL. */
void deliver(const linux_completion &done, const server_spawnlet_data_t *record);

/* wait_for_children: wait until all children have exited, so that none disturbs the next measurement. */
void wait_for_children();

/* look_up: look a name up and release the answer. Returns the number of addresses; 0 when the lookup failed. */
int look_up(const char *name, int vrf);

/* grow, shrink: set-up and teardown of a benchmark whose first argument is the process's touched memory in MB. */
void grow(const benchmark::State &state);
void shrink(const benchmark::State &state);

/* grow_a_little: set-up that grows to SMALL_MB, the smallest of these sizes. */
constexpr int SMALL_MB = 10;
void grow_a_little(const benchmark::State &state);

/* seconds_of: the duration of one call. */
template <typename Call>
double seconds_of(Call call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/* give_up: print the reason and exit with EXIT_FAILURE. */
[[noreturn]] void give_up(const char *what);

#endif
