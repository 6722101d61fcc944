/*
 * scenario_test.cpp: runs the *.scenario files of this folder, each named like the source file that it tests.
 * tests/README.md explains how to read and write them.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <glib.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <span>
#include <sstream>
#include <tuple>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/records/cache_key.h"
#include "tests/support/fakes.h"

struct section {
    std::string file, title, text;
};

/* A command, its plain arguments, and its named ones, which has() and number() take out. */
struct command {
    std::vector<std::string> words;
    std::map<std::string, std::string> named;

    explicit command(const std::string &line)
    {
        std::istringstream text(line);
        for (std::string word; text >> word;) {
            const size_t equals = word.find('=');
            if (equals == std::string::npos)
                words.push_back(word);
            else
                named[word.substr(0, equals)] = word.substr(equals + 1);
        }
    }
    bool has(const char *name)
    {
        return named.erase(name) != 0;
    }
    long number(const char *name, long otherwise = 0)
    {
        const auto found = named.extract(name);
        return found.empty() ? otherwise : std::stol(found.mapped());
    }
};

static server_spawnlet_data_t record; /* the record that commands set up and use */
static struct addrinfo stale;         /* *res of a caller that did not clear it before the call */
static bool is_accepting;
static std::map<std::string, std::string> accepted; /* texts of files */

/* Conversion from and to text */

static std::string expand(const std::string &word)
{
    const size_t star = word.find('*');
    return star == 1 ? std::string(std::stoul(word.substr(2)), word[0]) : word;
}

static const char *text_of(const std::string &word)
{
    return word == "NULL" ? nullptr : word.c_str();
}

struct target {
    std::string host, service;
    int vrf;

    /* HOST:SERVICE:VRF */
    explicit target(const std::string &text)
    {
        const size_t last = text.rfind(':'), first = text.rfind(':', last - 1);
        host = expand(text.substr(0, first));
        service = expand(text.substr(first + 1, last - first - 1));
        vrf = std::stoi(text.substr(last + 1));
    }
};

static std::string escaped(char c)
{
    if (isprint(static_cast<unsigned char>(c)))
        return std::string(1, c);
    char text[5];
    snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(c));
    return c == '\n' ? "\\n" : text;
}

static std::string masked(const std::string &line)
{
    /* Not masked: 0, the lines of messages from "somebody", and a place in a message that differs from its prefix. */
    static const std::regex prefix(
        "^([HFP]+ (?!somebody)([a-z_0-9]+)\\(\\) : )([1-9][0-9]*) (\\2\\(\\3\\))?"),
        number("(: (?!somebody)[a-z_0-9]+ [:,] Line : )[1-9][0-9]*"),
        address("(serv_ptr|server_addr_info|ret_info) (0x)?0*[1-9a-f][0-9a-f]*");
    std::string text;
    for (size_t i = 0, end; i < line.size(); i = end) {
        end = std::min(line.find_first_not_of(line[i], i), line.size());
        const bool is_long = end - i > 20;
        for (size_t j = i; j < (is_long ? i + 1 : end); j++)
            text += escaped(line[j]);
        text += is_long ? "*" + std::to_string(end - i) : "";
    }
    std::smatch found;
    if (std::regex_search(text, found, prefix))
        text = found.str(1) + "# " + (found[4].matched ? found.str(2) + "(#)" : "") + found.suffix().str();
    return std::regex_replace(std::regex_replace(text, number, "$1#"), address, "$1 #");
}

[[gnu::format(printf, 1, 2)]] static std::string text(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree char *made = g_strdup_vprintf(format, args);
    va_end(args);
    return made;
}

static void result(const std::string &line)
{
    fake.log.push_back({"", "", "= " + line});
}

static std::string address_text(int family, const void *sa)
{
    char address[INET6_ADDRSTRLEN] = "";
    return inet_ntop(family, static_cast<const char *>(sa) + (family == AF_INET ? 4 : 8), address,
                     sizeof address);
}

static void show_chain(int rc, struct addrinfo *chain)
{
    std::string line = std::to_string(rc) + (chain == &stale ? " stale" : chain == nullptr ? " NULL" : "");
    for (struct addrinfo *ai = chain; ai != nullptr && ai != &stale; ai = ai->ai_next)
        line +=
            text(" %s/%u%s%s", address_text(ai->ai_family, ai->ai_addr).c_str(), ai->ai_addrlen,
                 ai->ai_canonname != nullptr ? "/" : "", ai->ai_canonname != nullptr ? ai->ai_canonname : "");
    result(line);
    if (chain != nullptr && chain != &stale)
        freeaddrinfo(chain);
}

/* The first three elements and the last. */
template <typename Record>
static std::string list_text(GList *list, std::string (*show)(const Record *))
{
    std::string line = std::to_string(g_list_length(list));
    for (GList *link = list; link != nullptr; link = link->next)
        if (g_list_position(list, link) < 3 || link->next == nullptr)
            line += " " + (link->data == nullptr ? "NULL" : show(static_cast<const Record *>(link->data)));
    return line;
}

static std::string cached_text(const server_spawnlet_data_t *r)
{
    return text("%s/%d@%d", r->serv_id, r->status, r->timestamp);
}

static std::string job_text(const server_addr_info *r)
{
    return text("%s:%s:%d#%u", r->serv_name, r->service, r->vrf, r->job_handle);
}

static std::vector<std::string> state()
{
    struct sigaction sigchld;
    sigaction(SIGCHLD, nullptr, &sigchld);
    return {"cache: " + list_text(local_cache, cached_text),
            "jobs: " + std::to_string(running_jobs) + " running, " + list_text(job_list, job_text),
            sigchld.sa_handler == SIG_DFL ? "SIGCHLD: default" : "SIGCHLD: ignored"};
}

static void show_record(const server_spawnlet_data_t &r)
{
    std::string line =
        text("key %s name %s service %s vrf %d family %d status %d stamp %d entries %d", r.serv_id,
             r.serv_name, r.service, r.vrf, r.hints.ai_family, r.status, r.timestamp, r.num_entries);
    for (int i = 0; i < r.num_entries; i++)
        line += text("; %d %u %s %s \"%s\"", r.ai_hdr[i].ai_family, r.ai_hdr[i].ai_addrlen,
                     address_text(AF_INET, r.addr[i]).c_str(), address_text(AF_INET6, r.addr6[i]).c_str(),
                     r.canonname[i]);
    result(line);
}

/* Commands */

template <typename T>
static std::span<char> bytes(T &field)
{
    return {reinterpret_cast<char *>(&field), sizeof field};
}

using field_table = std::map<std::string, std::span<char>>;

/* paths: the places as they are written; a field is named without the variable that it is in. */
template <typename... Places>
static field_table table_of(const std::string &paths, Places &...places)
{
    field_table fields;
    std::istringstream text(paths + ",");
    const auto add = [&](std::span<char> place) {
        std::string path;
        std::getline(text >> std::ws, path, ',');
        fields[path.substr(path.find('.') + 1)] = place;
    };
    (add(bytes(places)), ...);
    return fields;
}

#define TABLE_OF(...) table_of(#__VA_ARGS__, __VA_ARGS__)

/* Sets the fields that the command names, and takes them out. */
static void set_fields(command *c, const field_table &fields)
{
    for (const auto &[name, place] : fields) {
        const auto given = c->named.extract(name);
        if (given.empty())
            continue;
        const bool is_number = place.size() <= sizeof(int64_t);
        const int64_t value = is_number ? std::stoll(given.mapped()) : 0;
        const std::string chars = expand(given.mapped());
        memcpy(place.data(), is_number ? reinterpret_cast<const char *>(&value) : chars.c_str(),
               is_number ? place.size() : std::min(chars.size() + 1, place.size()));
    }
}

/* The result record of HOST:SERVICE:VRF with these addresses. */
static server_spawnlet_data_t a_record(const std::string &whose, std::span<const std::string> addresses)
{
    server_spawnlet_data_t made = {.timestamp = 1000};
    const target of(whose);
    snprintf(made.serv_id, sizeof made.serv_id, "%s", whose.c_str());
    snprintf(made.serv_name, sizeof made.serv_name, "%s", of.host.c_str());
    snprintf(made.service, sizeof made.service, "%s", of.service.c_str());
    made.vrf = of.vrf;
    made.status = addresses.empty() ? ENTRY_EMPTY : ENTRY_RESOLVED;
    for (const std::string &address : addresses) {
        const int i = made.num_entries++;
        struct sockaddr_in sin = {.sin_family = AF_INET};
        struct sockaddr_in6 sin6 = {.sin6_family = AF_INET6};
        const bool ipv4 = inet_pton(AF_INET, address.c_str(), &sin.sin_addr) == 1;
        if (!ipv4) {
            inet_pton(AF_INET6, address.c_str(), &sin6.sin6_addr);
            memcpy(made.addr6[i], &sin6, sizeof sin6);
        }
        memcpy(made.addr[i], ipv4 ? static_cast<void *>(&sin) : &sin6, 16);
        made.ai_hdr[i] = {.ai_family = ipv4 ? AF_INET : AF_INET6,
                          .ai_socktype = SOCK_STREAM,
                          .ai_addrlen = static_cast<uint32_t>(ipv4 ? sizeof sin : sizeof sin6)};
    }
    return made;
}

/* [HOST:SERVICE:VRF ADDRESS...] [FIELD=VALUE]...: the current record becomes another one, or changes. */
static void make_record(command c)
{
    static const field_table fields =
        TABLE_OF(record.serv_id, record.serv_name, record.service, record.num_entries, record.status,
                 record.timestamp, record.hints.ai_flags, record.hints.ai_family, record.canonname[0],
                 record.ai_hdr[0].ai_flags, record.ai_hdr[0].ai_socktype, record.ai_hdr[0].ai_protocol,
                 record.ai_hdr[0].ai_addrlen, record.addr[0][0]);
    if (c.words.size() > 1)
        record = a_record(c.words[1], std::span(c.words).subspan(2));
    set_fields(&c, fields);
    EXPECT_TRUE(c.named.empty()) << c.named.begin()->first;
}

/* A copy in memory from malloc(), so that a list can own it. */
template <typename T>
static T *on_heap(const T &value)
{
    return static_cast<T *>(memcpy(malloc(sizeof value), &value, sizeof value));
}

static void cache_record(command c)
{
    const bool is_null = c.words.size() > 1 && c.words[1] == "NULL";
    if (!is_null)
        make_record(c);
    local_cache = g_list_prepend(local_cache, is_null ? nullptr : on_heap(record));
}

/* Adds copies of a record with the keys host0, host1, ... */
static void fill_cache(command c)
{
    const long count = c.number("count");
    make_record(c);
    for (long i = 0; i < count; i++) {
        server_spawnlet_data_t *copy = on_heap(record);
        snprintf(copy->serv_id, sizeof copy->serv_id, "host%ld", i);
        local_cache = g_list_prepend(local_cache, copy);
    }
}

/* A child hands the current record back, or part of it. */
static void make_answer(command c)
{
    const long size = c.number("size", sizeof record);
    fake.loses_buffer = c.has("buffer");
    make_record(c);
    fake.ret_info.assign(bytes(record).begin(), bytes(record).end());
    fake.ret_info.resize(static_cast<size_t>(size));
}

static void add_job(command c)
{
    server_addr_info job;
    const target to(c.words[1]);
    server_addr_init(to.host.c_str(), to.service.c_str(), nullptr, to.vrf, &job);
    job.job_handle = static_cast<uint32_t>(c.number("handle"));
    job_list = g_list_prepend(job_list, on_heap(job));
    running_jobs++;
}

static void prepend_job(command c)
{
    job_list =
        g_list_check_and_prepend(&job_list, on_heap(server_addr_info{}), static_cast<int>(c.number("limit")));
}

static void look_up(command c)
{
    const struct addrinfo hints = {.ai_family = AF_INET6};
    struct addrinfo *chain = c.has("res") ? &stale : nullptr;
    const target to(c.words[1]);
    const int rc = getaddrinfo_async_mq3(text_of(to.host), text_of(to.service),
                                         c.has("hints") ? nullptr : &hints, to.vrf, &chain);
    show_chain(rc, chain);
}

static void add_entry(command c)
{
    const target to(c.words[1]);
    result(text("%d", add_entry_to_dns_cache(text_of(to.host), std::stoi(to.service), to.vrf, nullptr)));
}

static void complete(command c)
{
    const auto handle = static_cast<uint32_t>(c.number("handle")),
               code = static_cast<uint32_t>(c.number("code"));
    const auto size = static_cast<uint32_t>(c.number("size", sizeof record));
    const auto returned = static_cast<int32_t>(c.number("result"));
    std::vector<char> buffer(size);
    const bool has_buffer = !c.has("buffer");
    make_record(c);
    memcpy(buffer.data(), &record, std::min<size_t>(size, sizeof record));
    dnscache_spawnletcb_job_done(handle, code, has_buffer ? buffer.data() : nullptr, size, returned);
}

static void check_cache(command c)
{
    const std::string key = expand(c.words[1]);
    struct addrinfo *chain = c.has("res") ? &stale : nullptr;
    const int rc = check_local_cache(local_cache, text_of(key), &chain);
    show_chain(rc, chain);
}

/* Overwrites the record before it reads the chain, which must own everything that it points to. */
static void decode(command c)
{
    struct addrinfo *chain = &stale;
    server_spawnlet_data_t *const decoded = c.has("record") ? nullptr : &record;
    make_record(c);
    const int rc = get_res_back(decoded, &chain);
    memset(&record, 0xee, sizeof record);
    show_chain(rc, chain);
}

/* Sets the resolver's answer, a chain as the C library builds it: resolver ADDRESS[/LENGTH][/NAME]... */
static void script_resolver(command c)
{
    struct addrinfo **tail = &fake.resolver_answer;
    for (size_t i = 1; i < c.words.size(); i++) {
        std::istringstream parts(c.words[i]);
        std::string address, length, name;
        std::getline(parts, address, '/') && std::getline(parts, length, '/') && std::getline(parts, name);
        server_spawnlet_data_t one = a_record("x:0:0", {&address, 1});
        get_res_back(&one, tail);
        if (!length.empty())
            (*tail)->ai_addrlen = static_cast<socklen_t>(std::stoul(length));
        if (c.words[i].find('/') != c.words[i].rfind('/'))
            (*tail)->ai_canonname =
                strcpy(static_cast<char *>(malloc(expand(name).size() + 1)), expand(name).c_str());
        tail = &(*tail)->ai_next;
    }
    fake.log.clear();
}

static void run_job(command c)
{
    const struct addrinfo hints = {.ai_family = AF_INET6};
    const target to(c.words[1]);
    server_addr_info request;
    server_addr_init(to.host.c_str(), to.service.c_str(), &hints, to.vrf, &request);
    void *ret_info = nullptr;
    uint32_t size = 0;
    int32_t ret_syserr = 0;
    const job_options options = {.record_size = sizeof options};
    memory.on_start = nullptr; /* so that the body runs */
    spawnlet_fork_fp(reinterpret_cast<spawnlet_body_t>(resolve_server_hostname), &request, &ret_info, &size,
                     &ret_syserr, &options, nullptr, nullptr, nullptr);
    result(text("%d", ret_syserr));
    if (size == sizeof(server_spawnlet_data_t))
        show_record(*static_cast<server_spawnlet_data_t *>(ret_info));
}

/* wait RESULT...: what waitpid() returns, one after the other; "0*80" stands for 80 of them, -4 for errno 4. */
static void wait_for_child(command c)
{
    fake.waits = fake.sleeps = 0;
    fake.waitpid_results.clear();
    for (size_t i = 1; i < c.words.size(); i++)
        fake.waitpid_results.insert(fake.waitpid_results.end(),
                                    c.words[i][1] == '*' ? std::stoul(c.words[i].substr(2)) : 1,
                                    std::stoi(c.words[i]));
    dnscache_wait_for_child(42);
    result(text("%d polls, %d sleeps", fake.waits, fake.sleeps));
}

static void find_address(command c)
{
    struct sockaddr sa = {};
    sa.sa_family = static_cast<sa_family_t>(c.number("family", -1));
    const auto *address = static_cast<const char *>(get_sock_in_addr(c.words.size() > 1 ? nullptr : &sa));
    result(
        text("%ld", address == nullptr ? -1L : static_cast<long>(address - reinterpret_cast<char *>(&sa))));
}

static void display_address(const command &)
{
    struct sockaddr sa = {.sa_family = AF_INET, .sa_data = {}};
    memcpy(sa.sa_data, "abcdefghijklm\xff", sizeof sa.sa_data);
    display_sockaddr(&sa);
}

static void show_key(command c)
{
    const target to(c.words[1]);
    char out[512];
    memset(out, 'x', sizeof out);
    EXPECT_STREQ(create_hostcache_id(to.host.c_str(), std::stoi(to.service), to.vrf, out), out);
    result({out, sizeof out});
}

static void fill_request(command c)
{
    struct addrinfo hints = {
        .ai_flags = 1, .ai_family = 10, .ai_socktype = 2, .ai_protocol = 17, .ai_addrlen = 5};
    hints.ai_next = &hints;
    const target to(c.words[1]);
    server_addr_info request;
    memset(&request, 'x', sizeof request);
    const bool with_hints = c.words.size() > 2;
    const int rc = server_addr_init(text_of(to.host), text_of(to.service), with_hints ? &hints : nullptr,
                                    to.vrf, &request);
    dnscache_addrinfo_image expected = {1, 10, 2, 17, 5, 0, 0, 0};
    if (sizeof hints == sizeof expected)
        memcpy(&expected, &hints, sizeof expected);
    EXPECT_EQ(memcmp(&request.hints, &expected, sizeof expected) == 0, with_hints);
    const auto *start = reinterpret_cast<const char *>(&request);
    result(std::to_string(rc) + " " + std::string(start, offsetof(server_addr_info, hints)));
    result(text("family %d vrf %d", request.hints.ai_family, request.vrf));
}

static void run(command c);

/* Runs a command with its k-th malloc() failing, for each k until none fails. A failure must not change state. */
static void sweep(command c)
{
    const auto lists = [] { return std::tuple(fake.blocks, local_cache, job_list, running_jobs); };
    c.words.erase(c.words.begin());
    std::vector<log_line> outcomes;
    for (int k = 1; k > 0; k++) {
        const auto before = lists();
        fake.failing_malloc = k;
        run(c);
        if (fake.failing_malloc > 0)
            k = -1; /* no malloc() has failed: end the loop */
        fake.failing_malloc = 0;
        const char *change = k < 0 ? "no failure" : lists() == before ? "all as before" : "STATE CHANGED";
        const std::string last = fake.log.empty() ? "" : fake.log.back().text;
        outcomes.push_back({"", "", (last[0] == '=' ? last + ", " : "= ") + change});
        fake.log.clear();
    }
    fake.log = outcomes;
}

static void prepend_null(const command &)
{
    result(text("%s", g_list_check_and_prepend(nullptr, &record, 1) == nullptr ? "NULL" : "a list"));
    result(text("%s",
                g_list_check_and_prepend(&job_list, nullptr, 1) == job_list ? "same list" : "another list"));
}

static void show_settings(const command &)
{
    result(text("blocking %d, cache %d, queue %u, initialised %d", blocking_timeout, cache_timeout,
                async_queue, cache_initialised));
}

using command_map = std::map<std::string, std::function<void(const command &)>>;

static const command_map preparations = {
    {"set", [](const command &) {}},
    {"record", make_record},
    {"cached", cache_record},
    {"fill", fill_cache},
    {"job", add_job},
    {"answer", make_answer},
    {"resolver", script_resolver},
    {"close-log",
     [](const command &) {
         fclose(log_file);
         log_file = nullptr;
         fake.marker = 0;
     }},
};

static const command_map calls = {
    {"newest",
     [](const command &) { show_record(*static_cast<server_spawnlet_data_t *>(local_cache->data)); }},
    {"sweep", sweep},
    {"request", fill_request},
    {"key", show_key},
    {"lookup", look_up},
    {"add", add_entry},
    {"complete", complete},
    {"check", check_cache},
    {"decode", decode},
    {"refresh", [](const command &) { refresh_dns_cache(); }},
    {"purge", [](const command &) { remove_old_entries_from_local_cache(); }},
    {"remove", [](const command &c) { remove_entry_from_dns_cache(text_of(expand(c.words[1]))); }},
    {"prepend", prepend_job},
    {"prepend-null", prepend_null},
    {"resolve", run_job},
    {"display", [](const command &c) { make_record(c), server_spawnlet_data_display(&record); }},
    {"ip_addrs", [](const command &c) { display_ip_addrs(c.words.size() > 1 ? nullptr : &stale); }},
    {"sockaddr", display_address},
    {"in_addr", find_address},
    {"init",
     [](command c) {
         dns_cache_init(static_cast<uint32_t>(c.number("queue")), static_cast<int>(c.number("timeout")));
     }},
    {"settings", show_settings},
    {"lifetime", [](const command &c) { dns_cache_set_timeout(std::stoi(c.words[1])); }},
    {"wait", wait_for_child},
    {"trace",
     [](const command &c) {
         dnscache_trace("somebody", 120, "two  blanks %d %s\n", 7, expand(c.words[1]).c_str());
     }},
    {"trace-zero", [](const command &) { dnscache_trace("somebody", 120, "ab%cd", 0); }},
    {"trace-entry", [](const command &) { dnscache_trace_enter("somebody", 1); }},
    {"trace-exit", [](const command &) { dnscache_trace_exit("somebody", 2); }},
    {"log",
     [](const command &) { result(text("%s \"%s\"", log_file != nullptr ? "open" : "closed", file_name)); }},
};

/* Any command may change settings of the fakes, too. */
static void run(command c)
{
    static const field_table settings = TABLE_OF(
        fake.marker, fake.fopen_fails, fake.syserr, fake.async_syserr, fake.ret_syserr, fake.resolver_result,
        fake.now, fake.failing_malloc, fake.folder_mode, memory.partition, memory.rtctx_fails,
        memory.register_code, memory.history_subtype, memory.debug_flag, running_jobs);
    set_fields(&c, settings);
    if (preparations.count(c.words[0]) != 0)
        return preparations.at(c.words[0])(c);
    errno = EXDEV;
    calls.at(c.words[0])(c);
    /* Only exported calls keep errno. */
    EXPECT_TRUE(errno == EXDEV || c.words[0].starts_with("trace") || c.words[0] == "key") << c.words[0];
}

/* Running the sections */

/* The results, and the messages and calls that match the pattern; equal lines are counted. */
static std::string shown(const std::string &pattern)
{
    std::string all, last;
    size_t times = 0;
    for (const log_line &line : fake.log) {
        if (!line.text.starts_with("= ") && !std::regex_search(line.place + line.text, std::regex(pattern)))
            continue;
        const std::string next =
            masked(line.sinks + (line.sinks.empty() ? "" : " ") + line.place + line.text);
        times = next == last ? times + 1 : 1;
        if (times == 1)
            all += next + "\n";
        else
            all.replace(all.rfind(last) + last.size(), std::string::npos, text(" (%zu times)\n", times));
        last = next;
    }
    return all;
}

static std::string run_section(const section &section)
{
    std::istringstream script(section.text);
    std::string line, transcript;
    while (std::getline(script, line)) {
        const bool shows_all = line.starts_with(">> ");
        if (!shows_all && !line.starts_with("> "))
            continue;
        command c(line.substr(shows_all ? 3 : 2));
        const auto given = c.named.extract("messages");
        const std::string pattern = shows_all ? "" : given.empty() ? "^$" : given.mapped();
        fake.log.clear();
        const std::vector<std::string> before = state();
        run(c);
        for (size_t i = 0; i < (shows_all ? 3 : 2) && calls.count(c.words[0]) != 0; i++)
            if (state()[i] != before[i])
                result(state()[i]);
        transcript += line + "\n" + shown(pattern);
    }
    return transcript;
}

static std::vector<section> all_sections()
{
    std::vector<section> sections;
    for (const auto &entry : std::filesystem::directory_iterator(SCENARIOS)) {
        if (entry.path().extension() != ".scenario")
            continue;
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("## "))
                sections.push_back({entry.path().stem(), line.substr(3), ""});
            else if (!line.empty() && !sections.empty())
                sections.back().text += line + "\n";
        }
    }
    return sections;
}

class scenario : public world_test
{
  public:
    explicit scenario(const section &to_run) : section(to_run) {}
    void TestBody() override
    {
        record = {};
        ASSERT_NE(section.text.find("> "), std::string::npos);
        const std::string transcript = run_section(section);
        std::string &file = accepted[section.file];
        file += (file.empty() ? "## " : "\n## ") + section.title + "\n" + transcript;
        if (is_accepting)
            return;
        EXPECT_EQ(transcript, section.text);
    }

  private:
    const ::section section;
};

/* During a test standard output is a trace sink, so failures are printed to standard error. */
class failures_to_stderr : public testing::EmptyTestEventListener
{
    void OnTestPartResult(const testing::TestPartResult &part) override
    {
        if (part.failed())
            fprintf(stderr, "%s\n", part.message());
    }
};

int main(int argc, char **argv)
{
    for (const section &section : all_sections()) {
        std::string name = section.title;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
        testing::RegisterTest(section.file.c_str(), name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                              [section]() -> world_test * { return new scenario(section); });
    }
    testing::InitGoogleTest(&argc, argv);
    is_accepting = argc == 2 && strcmp(argv[1], "--accept") == 0;
    testing::UnitTest::GetInstance()->listeners().Append(new failures_to_stderr);
    const int failed = RUN_ALL_TESTS();
    for (const auto &[name, text] : accepted)
        if (is_accepting && failed == 0)
            std::ofstream(SCENARIOS "/" + name + ".scenario") << text;
    return failed;
}
