/*
 * model.cpp: compares the library with its prediction. The bytes of an input select steps, which cover all calls that
 * use state. After each step all state is compared; chains are compared again when records have left the cache.
 *
 *   model STEPS [SEED]    select the steps with a random generator; fail unless each kind of event has occurred
 */
#include <inttypes.h>
#include <stddef.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "dnscache/state.h"
#include "fuzz/chain.h"
#include "fuzz/input.h"
#include "fuzz/platform.h"
#include "fuzz/prediction.h"

static constexpr uint64_t default_seed = 20260101;
static constexpr size_t chains_max = 40;

/* The last one is too long for the request, which cuts it, but not for the key. */
static const char *const services[] = {"123", "53", "123", "53", "80x", "dns", "-5", "0000000000080"};

struct server {
    std::string host, service;
    int32_t vrf;
};

struct kept_chain {
    struct addrinfo *chain;
    server_spawnlet_data_t record; /* from which it was decoded */
};

static input in;
static prediction expected;
static std::deque<kept_chain> kept;
static std::vector<unsigned char> buffer; /* of the job service, exactly as large as its stated size */
static const char *step_name;
static uint64_t seed, steps_taken;

/* Comparison */

[[noreturn]] static void fail(const char *what, const std::string &wanted, const std::string &got)
{
    fprintf(stderr, "model: seed %" PRIu64 ", step %" PRIu64 " (%s): %s: expected %s, got %s\n", seed,
            steps_taken, step_name, what, wanted.c_str(), got.c_str());
    abort();
}

static void compare(const char *what, int64_t wanted, int64_t got)
{
    if (wanted != got)
        fail(what, std::to_string(wanted), std::to_string(got));
}

static std::string described(const server_spawnlet_data_t &record)
{
    return std::string(text_of(record.serv_id)) + " status " + std::to_string(record.status) + " entries " +
           std::to_string(record.num_entries) + " stamp " + std::to_string(record.timestamp);
}

static std::string described(const server_addr_info &job)
{
    return std::to_string(job.job_handle) + " " + std::string(text_of(job.serv_name)) + ":" +
           std::string(text_of(job.service)) + ":" + std::to_string(job.vrf);
}

template <typename T>
static void compare_list(const char *what, const std::deque<T> &wanted, const GList *link)
{
    compare(what, static_cast<int64_t>(wanted.size()), g_list_length(const_cast<GList *>(link)));
    for (const T &element : wanted) {
        const T &found = *static_cast<const T *>(link->data);
        if (memcmp(&element, &found, sizeof element) != 0)
            fail(what, described(element), described(found));
        link = link->next;
    }
}

static void compare_chain(const kept_chain &one)
{
    compare(described(one.record).c_str(), std::min(one.record.num_entries, 4),
            matching_length(one.chain, one.record));
}

static void compare_all()
{
    compare_list("the cache", expected.cache, local_cache);
    compare_list("the job list", expected.jobs, job_list);
    compare("running_jobs", static_cast<int64_t>(expected.jobs.size()), running_jobs);
    compare("cache_timeout", expected.lifetime, cache_timeout);
    compare("blocking_timeout", expected.blocking, blocking_timeout);
    compare("blocking jobs", expected.waits, platform.waits);
    compare("background starts", expected.starts, platform.starts);
    compare("the job's timeout", expected.seconds, platform.seconds);
    compare("the routing context", true, memory.connected);
    if (memcmp(&expected.request, &platform.request, sizeof platform.request) != 0)
        fail("the job", described(expected.request), described(platform.request));
}

/* Drawing values from the input */

/* Keys cut the last four names to the same text, and records the last two. */
static server draw_server()
{
    static const size_t lengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 120, 121, 600, 601};
    const size_t length = in.one_of(lengths);
    const char *service = in.one_of(services);
    return {std::string(length, 'n'), service, in.byte() % 8 - 1};
}

/* Spoils about one record in six with content that our child never writes. */
static void spoil(server_spawnlet_data_t *record)
{
    using fields = server_spawnlet_data_t;
    static const struct {
        size_t offset, size;
        int fill;
    } faults[] = {{offsetof(fields, serv_id), sizeof fields::serv_id, 'x'},
                  {offsetof(fields, serv_name), sizeof fields::serv_name, 'y'},
                  {offsetof(fields, service), sizeof fields::service, 'z'},
                  {offsetof(fields, canonname), sizeof fields::canonname, 'c'},
                  {offsetof(fields, ai_hdr), sizeof fields::ai_hdr, 0xff},
                  {offsetof(fields, hints), sizeof fields::hints, 0x7f},
                  {offsetof(fields, num_entries), 4, 0xff},
                  {offsetof(fields, num_entries), 4, 9},
                  {offsetof(fields, num_entries), 12, ENTRY_EMPTY},
                  {offsetof(fields, status), 1, ENTRY_INVALID},
                  {offsetof(fields, status), 1, ENTRY_FAILED}};
    const size_t choice = in.byte() % 64;
    if (choice < std::size(faults))
        memset(reinterpret_cast<char *>(record) + faults[choice].offset, faults[choice].fill,
               faults[choice].size);
}

static server_spawnlet_data_t draw_record(const server &of)
{
    server_spawnlet_data_t record = {};
    set_text(record.serv_id, key_of(of.host, port_of(of.service), of.vrf));
    set_text(record.serv_name, of.host);
    set_text(record.service, of.service);
    record.hints.ai_flags = in.byte();
    record.vrf = of.vrf;
    record.num_entries = 1 + in.byte() % 4;
    record.status = ENTRY_RESOLVED;
    for (int i = 0; i < record.num_entries; i++) {
        record.ai_hdr[i].ai_family = in.one_in(2) ? AF_INET : AF_INET6;
        record.ai_hdr[i].ai_addrlen = in.byte() % 40;
        memset(record.addr[i], in.byte(), sizeof record.addr[i]);
        memset(record.addr6[i], in.byte(), sizeof record.addr6[i]);
        set_text(record.canonname[i], std::string(in.byte() % 70, 'c'));
    }
    spoil(&record);
    return record;
}

static memory_completion draw_result(const server_spawnlet_data_t &record)
{
    memory_completion result = {.syserr = 0, .ret_info = nullptr, .ret_info_size = 1676, .ret_syserr = 0};
    const unsigned fault = in.byte() % 16;
    if (fault < 4)
        result.syserr = in.one_in(2) ? 0x501 : 0x80000001;
    if (fault == 4)
        result.ret_syserr = in.one_in(2) ? -3 : -2;
    if (fault == 5)
        result.ret_info_size = in.one_in(2) ? 1675 : 1677;
    buffer = std::vector<unsigned char>(result.ret_info_size);
    memcpy(buffer.data(), &record, std::min(buffer.size(), sizeof record));
    if (fault != 6)
        result.ret_info = buffer.data();
    return result;
}

/* Steps */

static void keep(const kept_chain &one)
{
    compare_chain(one);
    kept.push_back(one);
}

static void release(size_t index)
{
    compare_chain(kept[index]);
    freeaddrinfo(kept[index].chain);
    kept.erase(kept.begin() + static_cast<long>(index));
}

static void look_up()
{
    const server of = draw_server();
    const dnscache_addrinfo_image image = {.ai_flags = in.byte(), .ai_family = in.byte()};
    const struct addrinfo hints = {.ai_flags = image.ai_flags, .ai_family = image.ai_family};
    platform.blocking = draw_result(draw_record(of));
    kept_chain answer = {};
    const int wanted =
        expected.look_up(of.host, of.service, image, of.vrf, platform.blocking, &answer.record);
    compare("result", wanted,
            getaddrinfo_async_mq3(of.host.c_str(), of.service.c_str(), &hints, of.vrf, &answer.chain));
    compare("a chain", wanted == 0, answer.chain != nullptr);
    if (wanted == 0)
        keep(answer);
}

static void add()
{
    static const int ports[] = {53, 123, 80, 0, -5, INT32_MIN};
    const server of = draw_server();
    const int port = in.one_of(ports);
    const int wanted = expected.add(of.host, port, of.vrf, {});
    compare("result", wanted, add_entry_to_dns_cache(of.host.c_str(), port, of.vrf, nullptr));
}

/* Completes a running job, in any order, or a handle whose job has ended or never existed. */
static void complete()
{
    uint32_t handle = in.byte() % (HANDLES + 2);
    server of = draw_server();
    if (!expected.jobs.empty() && in.one_in(2)) {
        const server_addr_info &job = expected.jobs[in.byte() % expected.jobs.size()];
        handle = job.job_handle;
        of = {job.serv_name, job.service, job.vrf};
    }
    const memory_completion result = draw_result(draw_record(of));
    expected.complete(handle, result);
    dnscache_spawnletcb_job_done(handle, result.syserr, result.ret_info, result.ret_info_size,
                                 result.ret_syserr);
}

static void check()
{
    struct addrinfo unwritten, *chain = &unwritten;
    const server of = draw_server();
    std::string key = key_of(of.host, port_of(of.service), of.vrf);
    if (!expected.cache.empty() && in.one_in(2))
        key = text_of(expected.cache[in.byte() % expected.cache.size()].serv_id);
    const server_spawnlet_data_t *found = expected.candidate(key);
    const bool answers = expected.answer(key) != nullptr;
    compare("result", answers ? 0 : -1, check_local_cache(local_cache, key.c_str(), &chain));
    compare("*res untouched", found == nullptr, chain == &unwritten);
    if (answers)
        keep({chain, *found});
    else
        compare("a chain", false, found != nullptr && chain != nullptr);
}

/* Adds a record directly, with a time stamp near the current time: jobs store only the current one. */
static void prepend()
{
    const server_spawnlet_data_t drawn = draw_record(draw_server());
    auto *record = static_cast<server_spawnlet_data_t *>(malloc(sizeof drawn));
    *record = as_cached(&drawn, expected.now - static_cast<int8_t>(in.byte()));
    expected.prepend(*record);
    local_cache = g_list_check_and_prepend(&local_cache, record, MAX_CACHE_ENTRIES);
}

/* Fills a list that is not the library's, with a limit other than the cache's. */
static void grow_another_list()
{
    GList *list = nullptr;
    const int limit = in.byte() % 12;
    for (int i = 20; i > 0; i--)
        list = g_list_check_and_prepend(&list, memset(malloc(1), i, 1), limit);
    compare("length", limit > 0 ? limit : 20, g_list_length(list));
    int wanted = 1;
    for (const GList *link = list; link != nullptr; link = link->next)
        compare("order", wanted++, *static_cast<const char *>(link->data));
    compare("result", 0, destroy_dns_cache(list));
}

/* Mostly by some seconds; rarely by an hour, or to just before 32-bit time stamps change sign or wrap. */
static void move_clock()
{
    static const int64_t places[] = {1'700'000'000, INT32_MAX - 30, UINT32_MAX - 30};
    const uint8_t choice = in.byte();
    expected.now = choice == 0 ? in.one_of(places) : expected.now;
    expected.now += choice == 1 ? 3600 : choice == 2 ? -3600 : choice % 4;
    platform.now = expected.now;
}

static void set_up()
{
    static const int32_t lifetimes[] = {60, 60, 60, 60, 0, -1, 3600, INT32_MAX};
    expected.lifetime = in.one_of(lifetimes);
    dns_cache_set_timeout(expected.lifetime);
    const bool is_first = cache_initialised == 0;
    const int32_t seconds = in.byte() % 4;
    dns_cache_init(5, seconds);
    expected.blocking = is_first && seconds != 0 ? seconds : expected.blocking;
}

static void maintain()
{
    const std::string host = draw_server().host;
    switch (in.byte() % 4) {
    case 0:
        expected.refresh();
        return refresh_dns_cache();
    case 1:
        expected.purge();
        return remove_old_entries_from_local_cache();
    default:
        expected.remove(host);
        return remove_entry_from_dns_cache(host.c_str());
    }
}

/* Calls that must be refused, and calls that only read. */
static void change_nothing()
{
    const struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
    compare("no node", -1, getaddrinfo_async_mq3(nullptr, "53", &hints, 0, &chain));
    compare("no service", -1, getaddrinfo_async_mq3("a", nullptr, &hints, 0, &chain));
    compare("no hints", -1, getaddrinfo_async_mq3("a", "53", nullptr, 0, &chain));
    compare("no host", -1, add_entry_to_dns_cache(nullptr, 53, 0, nullptr));
    compare("no list", true, g_list_check_and_prepend(nullptr, &chain, MAX_CACHE_ENTRIES) == nullptr);
    compare("no data", true, g_list_check_and_prepend(&local_cache, nullptr, 64) == local_cache);
    if (local_cache != nullptr)
        server_spawnlet_data_display(static_cast<const server_spawnlet_data_t *>(local_cache->data));
    if (!kept.empty())
        display_ip_addrs(kept[0].chain);
}

static const struct {
    const char *name;
    unsigned weight; /* of 256 */
    void (*take)();
} steps[] = {{"lookup", 120, look_up},
             {"completion", 44, complete},
             {"add", 26, add},
             {"clock", 22, move_clock},
             {"cache lookup", 12, check},
             {"prepend", 12, prepend},
             {"another list", 4, grow_another_list},
             {"maintenance", 8, maintain},
             {"set-up", 4, set_up},
             {"nothing", 4, change_nothing}};

static void take_step()
{
    unsigned choice = in.byte();
    size_t i = 0;
    while (choice >= steps[i].weight)
        choice -= steps[i++].weight;
    step_name = steps[i].name;
    steps_taken++;
    const uint32_t pattern = in.byte() * 0x01010101u;
    expected.refused = platform.refused = in.one_in(8) ? pattern : 0;
    const size_t removed = expected.removed;
    steps[i].take();
    compare_all();
    for (size_t k = 0; removed != expected.removed && k < kept.size(); k++)
        compare_chain(kept[k]);
    while (kept.size() > chains_max)
        release(in.byte() % kept.size());
}

/* Runs */

static void begin(uint64_t generator)
{
    reset_world();
    in = {.at = nullptr, .end = nullptr, .generator = generator};
    seed = generator;
    steps_taken = 0;
    expected = {};
    platform.now = expected.now;
}

static void end()
{
    reset_world();
    while (!kept.empty())
        release(0);
}

/* The first byte says how many steps the generator selects first: filling the cache takes hundreds. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    begin(default_seed);
    for (uint64_t before = size > 0 ? data[0] % 4 * 100u : 0; steps_taken < before;)
        take_step();
    in = {.at = data, .end = data + size, .generator = 0};
    for (in.byte(); !in.is_empty();)
        take_step();
    end();
    return 0;
}

#ifndef DNSCACHE_FUZZ
int main(int argc, char **argv)
{
    const uint64_t count = argc > 1 ? strtoull(argv[1], nullptr, 10) : 0;
    LLVMFuzzerInitialize(&argc, &argv);
    begin(argc > 2 ? strtoull(argv[2], nullptr, 10) : default_seed);
    while (steps_taken < count)
        take_step();
    end();
    fprintf(stderr, "model: seed %" PRIu64 ", %" PRIu64 " steps", seed, steps_taken);
    for (const auto &[event, times] : prediction::counts)
        fprintf(stderr, ", %lu %s", times, event.data());
    fprintf(stderr, "\n");
    constexpr size_t kinds = 16; /* of events, in prediction::counts */
    return prediction::counts.size() == kinds ? 0 : 1;
}
#endif
