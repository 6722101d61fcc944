/*
 * bench.h: what the benchmarks share: names, a cache to measure in, and the children that a measurement leaves.
 *
 * All of it uses the library as a host does, by its exported calls. The names are those that scripts/bench puts into
 * the laboratory's hosts file and name servers.
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

/* Two IPv4 and two IPv6 addresses each. */
constexpr char FILES_NAME[] = "four.files"; /* in the hosts file */
constexpr char DNS_NAME[] = "four.dns";     /* asked of the dnsmasq on loopback */

/* One of each kind, in VRF 0 by the dnsmasq on loopback and in VRF 1 by its own. */
constexpr char VRF_NAME[] = "time.lab";

/* server_name: the host whose record is at this position of a cache that fill_cache() has filled; 0 is the head. */
const char *server_name(int position);

/* record_of: what a job hands back for a host of VRF 0. Addresses: IPv4 and IPv6 by turns, one to four. */
server_spawnlet_data_t record_of(const char *name, int addresses);

/*
 * fill_cache: empty the cache, then fill it with MAX_CACHE_ENTRIES records, by jobs in the background whose completions
 * bring record_of() in place of what the child found. The oldest ones are expired.
 */
void fill_cache(int addresses, int expired);

/* fill_cache_with: that without expired ones, unless the cache is just like that already. */
void fill_cache_with(int addresses);

void empty_cache();

/* start_job: add_entry_to_dns_cache() for a host in VRF 0. The process ends if that is refused. */
void start_job(const char *name);

/* next_completion: wait for it. */
linux_completion next_completion();

/* deliver: hand a completion to the library, with this record or, for NULL, as that of a job that failed. */
void deliver(const linux_completion &done, const server_spawnlet_data_t *record);

/* wait_for_children: until the last one has exited, so that none runs into the next measurement. */
void wait_for_children();

/* look_up: one lookup and the release of what it found. Returns the number of addresses; 0 when it failed. */
int look_up(const char *name, int vrf);

/* grow, shrink: before a measurement whose first argument says how many megabytes the process has touched, and after. */
void grow(const benchmark::State &state);
void shrink(const benchmark::State &state);

/* grow_a_little: to the least of these. */
constexpr int SMALL_MB = 10;
void grow_a_little(const benchmark::State &state);

/* seconds_of: the time inside one call. */
template <typename Call>
double seconds_of(Call call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

[[noreturn]] void give_up(const char *what);

#endif
