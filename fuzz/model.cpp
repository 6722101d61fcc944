/*
 * model.cpp: the library beside its prediction. Steps over all calls that touch state are drawn from the bytes of an
 * input; after each, all state is compared, and so are the chains handed out, however long ago.
 *
 *   model STEPS [SEED]    draw the steps from a generator, and fail unless everything has happened that can
 */
#include <inttypes.h>

#include <vector>

#include "dnscache/state.h"
#include "fuzz/input.h"
#include "fuzz/platform.h"
#include "fuzz/prediction.h"

static constexpr uint64_t default_seed = 20260101;
static constexpr size_t kept_chains_max = 40;

static const char *const event_names[] = {"hits",
                                          "misses",
                                          "resolved",
                                          "fell back to a job",
                                          "same host running",
                                          "full cache",
                                          "refresh made room",
                                          "evictions",
                                          "expiries",
                                          "expiries past 2038",
                                          "purged",
                                          "removed",
                                          "jobs started",
                                          "refused starts",
                                          "full job list",
                                          "job already running",
                                          "completions",
                                          "of unknown jobs",
                                          "already answered",
                                          "stored",
                                          "chains outlived their record"};
static_assert(sizeof event_names / sizeof *event_names == EVENTS);
static unsigned long counts[EVENTS];

/* The long ones share a key; the last two share a record's name too. */
static const std::string hosts[] = {"a",
                                    "b",
                                    "c",
                                    "d",
                                    "e",
                                    "f",
                                    "g",
                                    "h",
                                    "i",
                                    "j",
                                    "k",
                                    "",
                                    std::string(120, 'n') + "1",
                                    std::string(120, 'n') + "2",
                                    std::string(600, 'o') + "1",
                                    std::string(600, 'o') + "2"};
/* The last is cut in the request, but not in the key. */
static const char *const services[] = {"123", "53", "123", "53", "80x", "dns", "-5", "0000000000080"};

struct kept_chain {
    struct addrinfo *chain;
    server_spawnlet_data_t record; /* that it was decoded from */
};

static input in;
static prediction expected;
static std::deque<kept_chain> kept;
static GList *elsewhere;
static std::vector<unsigned char> buffer; /* the job service's, exactly as large as it says */
static const char *step_name;
static uint64_t seed, steps_taken;

/* Comparing */

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

static std::string shown(const server_spawnlet_data_t &record)
{
    return std::string(text_of(record.serv_id)) + " status " + std::to_string(record.status) + " entries " +
           std::to_string(record.num_entries) + " stamp " + std::to_string(record.timestamp);
}

static std::string shown(const server_addr_info &job)
{
    return std::to_string(job.job_handle) + " " + std::string(text_of(job.serv_name)) + " " +
           std::string(text_of(job.service)) + " " + std::to_string(job.vrf);
}

/* Whole records, byte by byte. */
template <typename T>
static void compare_list(const char *what, const std::deque<T> &wanted, const GList *link)
{
    for (const T &element : wanted) {
        if (link == nullptr)
            fail(what, shown(element), "its end");
        const T &found = *static_cast<const T *>(link->data);
        if (memcmp(&element, &found, sizeof element) != 0)
            fail(what, shown(element), shown(found));
        link = link->next;
    }
    if (link != nullptr)
        fail(what, "its end", shown(*static_cast<const T *>(link->data)));
}

static void compare_node(const struct addrinfo &node, const server_spawnlet_data_t &record, int i)
{
    const dnscache_addrinfo_image &header = record.ai_hdr[i];
    const size_t slot = header.ai_family == AF_INET6 ? 32 : 16;
    compare("ai_flags", header.ai_flags, node.ai_flags);
    compare("ai_family", header.ai_family, node.ai_family);
    compare("ai_socktype", header.ai_socktype, node.ai_socktype);
    compare("ai_protocol", header.ai_protocol, node.ai_protocol);
    compare("ai_addrlen", header.ai_addrlen < slot ? header.ai_addrlen : int64_t(slot), node.ai_addrlen);
    const uint8_t *address = slot == 32 ? record.addr6[i] : record.addr[i];
    compare("the address's difference", 0, memcmp(address, node.ai_addr, node.ai_addrlen));
    const std::string name(record.canonname[i], strnlen(record.canonname[i], 64));
    if (name != (node.ai_canonname != nullptr ? node.ai_canonname : ""))
        fail("ai_canonname", name, node.ai_canonname != nullptr ? node.ai_canonname : "none");
}

static void compare_chain(const struct addrinfo *chain, const server_spawnlet_data_t &record)
{
    int count = 0;
    for (; chain != nullptr && count < 4; chain = chain->ai_next)
        compare_node(*chain, record, count++);
    compare("entries", record.num_entries < 4 ? record.num_entries : 4, count);
    compare("a fifth entry", 0, chain != nullptr);
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
    compare("the job's time-out", expected.seconds, platform.seconds);
    compare("the routing context", true, platform.connected);
    if (memcmp(&expected.request, &platform.request, sizeof platform.request) != 0)
        fail("the job", shown(expected.request), shown(platform.request));
}

/* Their records may have gone. */
static void compare_kept_chains()
{
    for (const kept_chain &one : kept)
        compare_chain(one.chain, one.record);
    counts[CHAIN_OUTLIVES_RECORD] += kept.size();
}

/* Drawing */

static dnscache_addrinfo_image draw_hints()
{
    dnscache_addrinfo_image hints = {};
    if (in.one_in(4))
        in.fill(&hints, sizeof hints);
    return hints;
}

static int32_t draw_vrf()
{
    const int32_t vrf = in.byte() % 8;
    return vrf == 7 ? -1 : vrf;
}

static void spoil(server_spawnlet_data_t *record)
{
    switch (in.byte() % 64) {
    case 0:
        memset(record->serv_id, 'x', sizeof record->serv_id);
        break;
    case 1:
        memset(record->serv_name, 'y', sizeof record->serv_name);
        break;
    case 2:
        memset(record->service, 'z', sizeof record->service);
        break;
    case 3:
        record->num_entries = static_cast<int8_t>(in.byte());
        break;
    case 4:
    case 5:
        record->num_entries = record->status = 0;
        break;
    case 6:
    case 7:
        record->status = in.byte() % 5;
        break;
    case 8:
        in.fill(record->canonname, sizeof record->canonname);
        break;
    case 9:
        in.fill(record->ai_hdr, sizeof record->ai_hdr);
        break;
    default:
        break;
    }
}

static server_spawnlet_data_t draw_record(std::string_view host, std::string_view service, int32_t vrf)
{
    static const int families[] = {AF_INET, AF_INET6};
    server_spawnlet_data_t record = {};
    set_text(record.serv_id, key_of(host, port_of(service), vrf));
    set_text(record.serv_name, host);
    set_text(record.service, service);
    record.hints = draw_hints();
    record.vrf = vrf;
    record.num_entries = 1 + in.byte() % 4;
    record.status = ENTRY_RESOLVED;
    for (int i = 0; i < record.num_entries; i++) {
        record.ai_hdr[i].ai_family = in.one_of(families);
        record.ai_hdr[i].ai_addrlen = in.byte() % 40;
        memset(record.addr[i], in.byte(), sizeof record.addr[i]);
        memset(record.addr6[i], in.byte(), sizeof record.addr6[i]);
        if (in.one_in(4))
            set_text(record.canonname[i], std::string(in.byte() % 70, 'c'));
    }
    spoil(&record);
    return record;
}

static job_result draw_result(const server_spawnlet_data_t &record)
{
    static const uint32_t sizes[] = {0, 1675, 1677, 1676};
    job_result result = {.syserr = 0, .ret_info = nullptr, .ret_info_size = 1676, .ret_syserr = 0};
    const uint8_t fault = in.byte() % 16;
    if (fault < 4)
        result.syserr = in.one_in(2) ? 0x501 : 0x80000001;
    if (fault == 4)
        result.ret_syserr = in.one_in(2) ? -3 : -2;
    if (fault == 5)
        result.ret_info_size = in.one_of(sizes);
    buffer = std::vector<unsigned char>(result.ret_info_size);
    memcpy(buffer.data(), &record, buffer.size() < sizeof record ? buffer.size() : sizeof record);
    if (fault != 6)
        result.ret_info = buffer.data();
    return result;
}

static struct addrinfo addrinfo_of(const dnscache_addrinfo_image &image)
{
    struct addrinfo ai = {};
    if (sizeof ai == sizeof image) {
        memcpy(static_cast<void *>(&ai), &image, sizeof image);
        return ai;
    }
    ai.ai_flags = image.ai_flags;
    ai.ai_family = image.ai_family;
    ai.ai_socktype = image.ai_socktype;
    ai.ai_protocol = image.ai_protocol;
    ai.ai_addrlen = image.ai_addrlen;
    return ai;
}

/* Steps */

static void keep(struct addrinfo *chain, const server_spawnlet_data_t &record)
{
    compare_chain(chain, record);
    kept.push_back({chain, record});
}

static void release_chain(size_t index)
{
    compare_chain(kept[index].chain, kept[index].record);
    freeaddrinfo(kept[index].chain);
    kept.erase(kept.begin() + static_cast<long>(index));
}

static void look_up()
{
    const std::string &host = in.one_of(hosts);
    const char *service = in.one_of(services);
    const int32_t vrf = draw_vrf();
    const dnscache_addrinfo_image image = draw_hints();
    const struct addrinfo hints = addrinfo_of(image);
    const job_result outcome = platform.blocking = draw_result(draw_record(host, service, vrf));
    server_spawnlet_data_t answered;
    struct addrinfo *chain = nullptr;
    const int wanted = expected.look_up(host, service, image, vrf, outcome, &answered);
    compare("result", wanted, getaddrinfo_async_mq3(host.c_str(), service, &hints, vrf, &chain));
    if (wanted == 0)
        keep(chain, answered);
    else
        compare("a chain", 0, chain != nullptr);
}

static void misuse()
{
    const struct addrinfo hints = {};
    struct addrinfo *chain = nullptr;
    server_addr_info request;
    int data;
    compare("no node", -1, getaddrinfo_async_mq3(nullptr, "53", &hints, 0, &chain));
    compare("no service", -1, getaddrinfo_async_mq3("a", nullptr, &hints, 0, &chain));
    compare("no hints", -1, getaddrinfo_async_mq3("a", "53", nullptr, 0, &chain));
    compare("no host", -1, add_entry_to_dns_cache(nullptr, 53, 0, nullptr));
    compare("no name", -1, server_addr_init(nullptr, "53", nullptr, 0, &request));
    compare("no cache", -1, check_local_cache(nullptr, "a:53:0", &chain));
    compare("a chain", 0, chain != nullptr);
    compare("no list", 0, g_list_check_and_prepend(nullptr, &data, 64) != nullptr);
    compare("no data", true, g_list_check_and_prepend(&local_cache, nullptr, 64) == local_cache);
}

static void add()
{
    static const int ports[] = {53, 123, 80, 0, -5, INT32_MIN};
    const std::string &host = in.one_of(hosts);
    const int port = in.one_of(ports);
    const int32_t vrf = draw_vrf();
    const dnscache_addrinfo_image image = draw_hints();
    const struct addrinfo hints = addrinfo_of(image);
    const int wanted = expected.add(host, port, vrf, image);
    compare("result", wanted, add_entry_to_dns_cache(host.c_str(), port, vrf, &hints));
}

/* A running job as often as not; else one that ended long ago, or never was. */
static void complete()
{
    uint32_t handle = in.byte() % (HANDLES + 2);
    server_spawnlet_data_t record = draw_record(in.one_of(hosts), in.one_of(services), draw_vrf());
    if (!expected.jobs.empty() && in.one_in(2)) {
        const server_addr_info &job = expected.jobs[in.byte() % expected.jobs.size()];
        handle = job.job_handle;
        record = draw_record(text_of(job.serv_name), text_of(job.service), job.vrf);
    }
    const job_result result = draw_result(record);
    expected.complete(handle, result);
    dnscache_spawnletcb_job_done(handle, result.syserr, result.ret_info, result.ret_info_size,
                                 result.ret_syserr);
}

static void check()
{
    struct addrinfo unwritten, *chain = &unwritten;
    std::string key = key_of(in.one_of(hosts), port_of(in.one_of(services)), draw_vrf());
    if (!expected.cache.empty() && in.one_in(2))
        key = text_of(expected.cache[in.byte() % expected.cache.size()].serv_id);
    bool has_candidate = false;
    const server_spawnlet_data_t *answer = expected.answer(key, &has_candidate);
    compare("result", answer != nullptr ? 0 : -1, check_local_cache(local_cache, key.c_str(), &chain));
    if (answer != nullptr)
        keep(chain, *answer);
    else if (chain != (has_candidate ? nullptr : &unwritten))
        fail("*res", has_candidate ? "NULL" : "as it was", "another");
}

/* What no job brings: any stamp. */
static void prepend()
{
    server_spawnlet_data_t drawn = draw_record(in.one_of(hosts), in.one_of(services), draw_vrf());
    drawn.timestamp = static_cast<int32_t>(expected.now - static_cast<int8_t>(in.byte()));
    auto *record = static_cast<server_spawnlet_data_t *>(malloc(sizeof drawn));
    *record = taken_in(&drawn);
    expected.prepend(*record);
    local_cache = g_list_check_and_prepend(&local_cache, record, MAX_CACHE_ENTRIES);
}

/* A list that is neither of the library's, with any limit but the cache's. */
static void prepend_elsewhere()
{
    const auto length = static_cast<int>(g_list_length(elsewhere));
    const int limit = in.byte() % 12;
    void *data = malloc(4), *second = length > 1 ? g_list_nth_data(elsewhere, 0) : nullptr;
    elsewhere = g_list_check_and_prepend(&elsewhere, data, limit);
    compare("length", limit > 0 && length >= limit ? length : length + 1, g_list_length(elsewhere));
    compare("the head", true, elsewhere->data == data);
    compare("the next", true, second == nullptr || limit == 1 || elsewhere->next->data == second);
    if (length > 30) {
        compare("result", 0, destroy_dns_cache(elsewhere));
        elsewhere = nullptr;
    }
}

/* Seconds mostly; seldom an hour, or to where time stamps change their sign, or where they start anew. */
static void move_clock()
{
    static const int64_t places[] = {1'700'000'000, INT32_MAX - 30, INT32_MAX - 30, UINT32_MAX - 30};
    const uint8_t choice = in.byte();
    if (choice == 0)
        expected.now = in.one_of(places);
    else if (choice < 3)
        expected.now += choice == 1 ? 3600 : -3600;
    else
        expected.now += choice % 4;
    platform.now = expected.now;
}

static void refresh()
{
    expected.refresh();
    refresh_dns_cache();
}

static void purge()
{
    expected.purge();
    remove_old_entries_from_local_cache();
}

static void remove()
{
    const std::string &host = in.one_of(hosts);
    expected.remove(host);
    remove_entry_from_dns_cache(host.c_str());
}

static void set_up()
{
    static const int32_t lifetimes[] = {60, 60, 60, 60, 0, -1, 3600, INT32_MAX};
    expected.lifetime = in.one_of(lifetimes);
    dns_cache_set_timeout(expected.lifetime);
    const int32_t seconds = in.byte() % 4;
    dns_cache_init(5, seconds);
    if (!expected.initialised && seconds != 0)
        expected.blocking = seconds;
    expected.initialised = true;
}

static void release()
{
    if (!kept.empty())
        release_chain(in.byte() % kept.size());
}

static void display()
{
    if (local_cache != nullptr)
        server_spawnlet_data_display(static_cast<const server_spawnlet_data_t *>(local_cache->data));
    if (!kept.empty())
        display_ip_addrs(kept[0].chain);
}

static const struct {
    const char *name;
    unsigned weight; /* of 256 */
    void (*take)();
} steps[] = {
    {"lookup", 110, look_up},
    {"completion", 40, complete},
    {"add", 24, add},
    {"clock", 20, move_clock},
    {"cache lookup", 12, check},
    {"prepend", 12, prepend},
    {"release", 12, release},
    {"prepend elsewhere", 8, prepend_elsewhere},
    {"remove", 4, remove},
    {"misuse", 4, misuse},
    {"display", 3, display},
    {"set-up", 3, set_up},
    {"refresh", 2, refresh},
    {"purge", 2, purge},
};

static void take_step()
{
    unsigned choice = in.byte();
    size_t i = 0;
    while (choice >= steps[i].weight)
        choice -= steps[i++].weight;
    step_name = steps[i].name;
    steps_taken++;
    expected.refused = platform.refused = in.one_in(8)   ? 0xffffffffu
                                          : in.one_in(4) ? in.byte() * 0x01010101u
                                                         : 0;
    const unsigned long gone = counts[EVICTION] + counts[PURGED] + counts[REMOVED];
    steps[i].take();
    compare_all();
    if (gone != counts[EVICTION] + counts[PURGED] + counts[REMOVED])
        compare_kept_chains();
    if (kept.size() > kept_chains_max)
        release_chain(0);
}

/* Runs */

static void begin(const input &bytes, uint64_t shown_seed)
{
    reset_world();
    in = bytes;
    seed = shown_seed;
    steps_taken = 0;
    step_name = "start";
    expected = prediction{};
    expected.counts = counts;
    expected.now = platform.now = 1'700'000'000;
}

static void end()
{
    reset_world();
    compare_kept_chains();
    while (!kept.empty())
        release_chain(0);
    destroy_dns_cache(elsewhere);
    elsewhere = nullptr;
}

/* The first byte says how many steps of its own the generator takes before: a full cache takes some hundreds. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    begin({.at = data, .end = data, .generator = default_seed}, default_seed);
    for (unsigned prefix = size > 0 ? data[0] * 4 : 0; steps_taken < prefix;)
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
    if (argc < 2) {
        fprintf(stderr, "usage: %s STEPS [SEED]\n", argv[0]);
        return 1;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    const uint64_t count = strtoull(argv[1], nullptr, 10);
    const uint64_t drawn = argc > 2 ? strtoull(argv[2], nullptr, 10) : default_seed;
    begin({.at = nullptr, .end = nullptr, .generator = drawn}, drawn);
    while (steps_taken < count)
        take_step();
    end();
    fprintf(stderr, "model: seed %" PRIu64 ", %" PRIu64 " steps", drawn, count);
    int missing = 0;
    for (int i = 0; i < EVENTS; i++) {
        fprintf(stderr, ", %s %lu", event_names[i], counts[i]);
        missing += counts[i] == 0;
    }
    fprintf(stderr, "\n");
    return missing == 0 ? 0 : 1;
}
#endif
