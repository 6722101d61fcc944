/*
 * hit.cpp: measures a hit, and the floor of its cost: a function that only makes the same calls of stat() and
 * printf(), counts and searches a list like the cache, and allocates the blocks of the answer.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "bench/bench.h"

static void hit(benchmark::State &state)
{
    const char *name = server_name(static_cast<int>(state.range(0)));
    linux_job_counters before, after;
    fill_cache_with(static_cast<int>(state.range(1)));
    linux_jobs_started(&before);
    for (auto _ : state)
        if (look_up(name, 0) != state.range(1))
            give_up("a hit returned the wrong number of addresses");
    linux_jobs_started(&after);
    if (after.blocking != before.blocking)
        give_up("a lookup that should be a hit started a job");
}

/* The floor's cache: like the library's, a list of blocks, newest first. */
static GList *floor_list;

static void fill_floor_list(int addresses)
{
    g_list_free_full(floor_list, free);
    floor_list = nullptr;
    for (int i = MAX_CACHE_ENTRIES - 1; i >= 0; i--) {
        auto *record = static_cast<server_spawnlet_data_t *>(malloc(sizeof(server_spawnlet_data_t)));
        if (record == nullptr)
            give_up("no memory");
        *record = record_of(server_name(i), addresses);
        floor_list = g_list_prepend(floor_list, record);
    }
}

static void look_for_marker()
{
    struct stat marker;
    if (stat("/bootflash/.enable_dns_debugs", &marker) == 0)
        give_up("the debug log is on");
}

static const server_spawnlet_data_t *find(const char *key)
{
    for (const GList *link = floor_list; link != nullptr; link = link->next) {
        const auto *record = static_cast<const server_spawnlet_data_t *>(link->data);
        if (strncmp(record->serv_id, key, sizeof record->serv_id - 1) == 0 && record->status != ENTRY_INVALID)
            return record;
    }
    give_up("the record is not in the list");
}

static struct addrinfo *new_node(const server_spawnlet_data_t *record, int i)
{
    struct block {
        struct addrinfo node;
        alignas(8) uint8_t address[32];
    };
    auto *node_block = static_cast<block *>(malloc(sizeof(block)));
    if (node_block == nullptr)
        give_up("no memory");
    *node_block = {};
    node_block->node.ai_family = record->ai_hdr[i].ai_family;
    node_block->node.ai_socktype = record->ai_hdr[i].ai_socktype;
    node_block->node.ai_addrlen = record->ai_hdr[i].ai_addrlen;
    node_block->node.ai_addr = reinterpret_cast<struct sockaddr *>(node_block->address);
    const bool ipv6 = node_block->node.ai_family == AF_INET6;
    memcpy(node_block->address, ipv6 ? record->addr6[i] : record->addr[i], ipv6 ? 32 : 16);
    return &node_block->node;
}

/* The same trace messages as the library on a hit, in the same order. */
static struct addrinfo *least_lookup(const char *key)
{
    look_for_marker();
    printf("cache id = %s\n", key);
    look_for_marker();
    printf("list length : %d\n", static_cast<int>(g_list_length(floor_list)));
    look_for_marker();
    printf("serv_id: %s\n", key);
    const server_spawnlet_data_t *record = find(key);
    look_for_marker();
    printf("Entry Found\n");
    look_for_marker();
    printf("No of entries in server_spawnlet_data_t : %d \n", record->num_entries);
    struct addrinfo *head = nullptr, **tail = &head;
    for (int i = 0; i < record->num_entries; i++) {
        *tail = new_node(record, i);
        if ((*tail)->ai_family == AF_INET6) {
            look_for_marker();
            printf("IPV6 Address here \n");
        }
        tail = &(*tail)->ai_next;
    }
    look_for_marker();
    printf("%s(%d):get_res_back() ret_code is SUCCESS(%d) and res is allocated.", "check_local_cache", 40, 0);
    look_for_marker();
    printf("Found in Local Cache\n");
    return head;
}

static void hit_floor(benchmark::State &state)
{
    fill_floor_list(static_cast<int>(state.range(1)));
    const server_spawnlet_data_t wanted = record_of(server_name(static_cast<int>(state.range(0))), 1);
    for (auto _ : state)
        freeaddrinfo(least_lookup(wanted.serv_id));
}

static void positions(benchmark::internal::Benchmark *lookup)
{
    lookup->ArgNames({"position", "addresses"});
    for (const int position : {0, 31, 63})
        for (const int addresses : {1, 4})
            lookup->Args({position, addresses});
    for (const int position : {7, 15, 23, 39, 47, 55})
        lookup->Args({position, 4});
}

BENCHMARK(hit)->Apply(positions);
BENCHMARK(hit_floor)->Apply(positions);

/* Decoding one record and releasing the chain */
static void decode(benchmark::State &state)
{
    server_spawnlet_data_t record = record_of("server", static_cast<int>(state.range(0)));
    if (state.range(1) != 0)
        strcpy(record.canonname[0], "server.example.net");
    for (auto _ : state) {
        struct addrinfo *chain;
        if (get_res_back(&record, &chain) != 0)
            give_up("a record was not decoded");
        freeaddrinfo(chain);
    }
}

BENCHMARK(decode)
    ->ArgNames({"addresses", "canonical"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({4, 0})
    ->Args({4, 1});
