/*
 * scenario_test.cpp: runs the *.scenario files of this folder, each named like the source file that it tests. A section
 * is a test: "## " and its title, then commands after "> ", each followed by what the library does: trace messages by
 * sink (H history, B debug, F log file, P standard output), platform calls, results after "= ". Line numbers and
 * addresses read "#", more than 20 equal characters "x*600", unprintable bytes "\x00"; equal lines are counted.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/records/cache_key.h"
#include "tests/support/fakes.h"

using words = std::vector<std::string>;

struct section {
    std::string file, title, text;
};

static server_spawnlet_data_t record; /* the record that commands set up and use */
static struct addrinfo stale;         /* *res of a caller that did not clear it before the call */

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
    /* A message in the log file may repeat the place in its prefix. A different line number is not masked. */
    static const std::regex same_place("^F ([a-z_0-9]+)\\(\\) : ([0-9]+) \\1\\(\\2\\)"),
        prefix("^F ([a-z_0-9]+)\\(\\) : [0-9]+ "), place("^([HBP] [a-z_0-9]+)\\([0-9]+\\)"),
        number("Line : [0-9]+"), address("(serv_ptr|server_addr_info|ret_info) (0x)?[0-9a-f]+");
    std::string text;
    for (size_t i = 0, end; i < line.size(); i = end) {
        end = std::min(line.find_first_not_of(line[i], i), line.size());
        const bool is_long = end - i > 20;
        for (size_t j = i; j < (is_long ? i + 1 : end); j++)
            text += escaped(line[j]);
        text += is_long ? "*" + std::to_string(end - i) : "";
    }
    text = std::regex_replace(text, same_place, "F $1() : # $1(#)");
    text = std::regex_replace(text, prefix, "F $1() : # ");
    text = std::regex_replace(text, place, "$1(#)");
    return std::regex_replace(std::regex_replace(text, number, "Line : #"), address, "$1 #");
}

static void result(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree char *text = g_strdup_vprintf(format, args);
    va_end(args);
    fake.log.push_back(std::string("= ") + text);
}

static int number(const std::string &word)
{
    return static_cast<int>(std::stol(word));
}

static std::string address_text(int family, const void *sa)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(family, static_cast<const char *>(sa) + (family == AF_INET ? 4 : 8), text, sizeof text);
}

static void show_chain(int rc, struct addrinfo *chain)
{
    std::string text = chain == &stale ? " stale" : chain == nullptr ? " NULL" : "";
    for (struct addrinfo *ai = chain; ai != nullptr && ai != &stale; ai = ai->ai_next)
        text += " " + address_text(ai->ai_family, ai->ai_addr) + "/" + std::to_string(ai->ai_addrlen) +
                (ai->ai_canonname != nullptr ? std::string("/") + ai->ai_canonname : "");
    result("%d%s", rc, text.c_str());
    if (chain != nullptr && chain != &stale)
        freeaddrinfo(chain);
}

static void show_list(const char *name, GList *list, const std::function<std::string(void *)> &show)
{
    std::string text;
    for (GList *link = list; link != nullptr; link = link->next)
        if (g_list_position(list, link) < 5 || link->next == nullptr)
            text += " " + (link->data == nullptr ? "NULL" : show(link->data));
    result("%s %u:%s", name, g_list_length(list), text.c_str());
}

static void show_state(const words &)
{
    show_list("cache", local_cache, [](void *data) {
        const auto *r = static_cast<server_spawnlet_data_t *>(data);
        return r->serv_id + ("/" + std::to_string(r->status)) + "@" + std::to_string(r->timestamp);
    });
    show_list("jobs", job_list, [](void *data) {
        const auto *r = static_cast<server_addr_info *>(data);
        return r->serv_name + std::string(":") + r->service + ":" + std::to_string(r->vrf) + "#" +
               std::to_string(r->job_handle);
    });
    struct sigaction sigchld;
    sigaction(SIGCHLD, nullptr, &sigchld);
    const bool is_default = sigchld.sa_handler == SIG_DFL, is_ignored = sigchld.sa_handler == SIG_IGN;
    result("running %d, SIGCHLD %s", running_jobs,
           is_default   ? "default"
           : is_ignored ? "ignored"
                        : "the host's");
}

static void show_handed_back(const server_spawnlet_data_t &r)
{
    std::string entries;
    for (int i = 0; i < r.num_entries; i++)
        entries += "; " + std::to_string(r.ai_hdr[i].ai_family) + " " +
                   std::to_string(r.ai_hdr[i].ai_addrlen) + " " + address_text(AF_INET, r.addr[i]) + " " +
                   address_text(AF_INET6, r.addr6[i]) + " \"" + r.canonname[i] + "\"";
    result("key %s name %s service %s vrf %d family %d status %d stamp %d entries %d%s", r.serv_id,
           r.serv_name, r.service, r.vrf, r.hints.ai_family, r.status, r.timestamp, r.num_entries,
           entries.c_str());
}

/* Commands */

#define SWITCH(world, name)                                                                                  \
    {                                                                                                        \
#name, [](int n) { world.name = static_cast<decltype(world.name)>(n); }                              \
    }

static void set(const words &w)
{
    static const std::map<std::string, std::function<void(int)>> switches = {
        SWITCH(fake, marker),
        SWITCH(fake, fopen_fails),
        SWITCH(fake, syserr),
        SWITCH(fake, async_syserr),
        SWITCH(fake, ret_syserr),
        SWITCH(fake, resolver_result),
        SWITCH(fake, now),
        SWITCH(fake, failing_malloc),
        SWITCH(memory, partition),
        SWITCH(memory, rtctx_fails),
        SWITCH(memory, register_code),
        SWITCH(memory, history_subtype),
        SWITCH(memory, debug_flag),
        {"running_jobs", [](int n) { running_jobs = n; }}};
    memory.history_class = 0x730000;
    switches.at(w[1])(number(w[2]));
}

#define FIELD(name)                                                                                          \
    {                                                                                                        \
#name,                                                                                               \
        {                                                                                                    \
            offsetof(server_spawnlet_data_t, name), sizeof record.name                                       \
        }                                                                                                    \
    }

static void set_field(const words &w)
{
    static const std::map<std::string, std::pair<size_t, size_t>> fields = {
        FIELD(serv_id),      FIELD(serv_name),       FIELD(service),
        FIELD(canonname[0]), FIELD(num_entries),     FIELD(status),
        FIELD(timestamp),    FIELD(hints.ai_family), FIELD(ai_hdr[0].ai_addrlen),
        FIELD(addr[0][0])};
    const auto [offset, size] = fields.at(w[1]);
    const std::string text = expand(w[2]);
    const bool is_number = size <= 4;
    const int64_t value = is_number ? std::stoll(w[2]) : 0;
    memcpy(reinterpret_cast<char *>(&record) + offset,
           is_number ? reinterpret_cast<const char *>(&value) : text.c_str(),
           is_number ? size : std::min(text.size() + 1, size));
}

static void make_record(const words &w)
{
    record = a_record(w[1], number(w[2]), number(w[3]), {w.begin() + 4, w.end()});
    record.timestamp = 1000;
}

static void make_answer(const words &w)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
    fake.ret_info.assign(bytes, bytes + sizeof record);
    fake.ret_info.resize(w.size() > 1 ? std::stoul(w[1]) : sizeof record);
    fake.loses_buffer = w.size() > 2;
}

/* Adds copies of the current record with the keys host0, host1, ... */
static void fill_cache(const words &w)
{
    for (int i = 0; i < number(w[1]); i++) {
        server_spawnlet_data_t *copy = on_heap(record);
        snprintf(copy->serv_id, sizeof copy->serv_id, "host%d", i);
        local_cache = g_list_prepend(local_cache, copy);
    }
}

static void add_job(const words &w)
{
    server_addr_info job;
    server_addr_init(w[1].c_str(), w[2].c_str(), nullptr, number(w[3]), &job);
    job.job_handle = static_cast<uint32_t>(std::stoul(w[4]));
    job_list = g_list_prepend(job_list, on_heap(job));
    running_jobs++;
}

static void prepend_job(const words &w)
{
    job_list = g_list_check_and_prepend(&job_list, on_heap(server_addr_info{}), number(w[1]));
}

static void look_up(const words &w)
{
    const struct addrinfo hints = {.ai_family = AF_INET6};
    struct addrinfo *chain = w.size() > 4 ? &stale : nullptr;
    const int rc = getaddrinfo_async_mq3(text_of(w[1]), text_of(w[2]), w[3] == "NULL" ? nullptr : &hints,
                                         w[3] == "NULL" ? 0 : number(w[3]), &chain);
    show_chain(rc, chain);
}

static void complete(const words &w)
{
    const bool is_null = w.size() > 4 && w[4] == "NULL";
    std::vector<unsigned char> buffer(w.size() > 4 && !is_null ? std::stoul(w[4]) : sizeof record);
    memcpy(buffer.data(), &record, std::min(buffer.size(), sizeof record));
    dnscache_spawnletcb_job_done(static_cast<uint32_t>(number(w[1])), static_cast<uint32_t>(number(w[2])),
                                 is_null ? nullptr : buffer.data(), static_cast<uint32_t>(buffer.size()),
                                 number(w[3]));
}

static void check_cache(const words &w)
{
    const std::string key = expand(w[1]);
    struct addrinfo *chain = w.size() > 2 ? &stale : nullptr;
    const int rc = check_local_cache(local_cache, text_of(key), &chain);
    show_chain(rc, chain);
}

/* Overwrites the record before it reads the chain, which must own everything that it points to. */
static void decode(const words &w)
{
    struct addrinfo *chain = &stale;
    const int rc = get_res_back(w.size() > 1 ? nullptr : &record, &chain);
    memset(&record, 0xee, sizeof record);
    show_chain(rc, chain);
}

/* Sets the resolver's answer, a chain as the C library builds it: resolver ADDRESS[/LENGTH][/NAME]... */
static void script_resolver(const words &w)
{
    struct addrinfo **tail = &fake.resolver_answer;
    for (size_t i = 1; i < w.size(); i++) {
        std::istringstream parts(w[i]);
        std::string address, length, name;
        std::getline(parts, address, '/') && std::getline(parts, length, '/') && std::getline(parts, name);
        server_spawnlet_data_t one = a_record("x", 0, 0, {address});
        get_res_back(&one, tail);
        if (!length.empty())
            (*tail)->ai_addrlen = static_cast<socklen_t>(std::stoul(length));
        if (w[i].find('/') != w[i].rfind('/'))
            (*tail)->ai_canonname =
                strcpy(static_cast<char *>(malloc(expand(name).size() + 1)), expand(name).c_str());
        tail = &(*tail)->ai_next;
    }
    fake.log.clear();
}

static void run_job(const words &w)
{
    const struct addrinfo hints = {.ai_family = AF_INET6};
    server_addr_info request;
    server_addr_init(w[1].c_str(), w[2].c_str(), &hints, number(w[3]), &request);
    void *ret_info = nullptr;
    uint32_t size = 0;
    int32_t ret_syserr = 0;
    const job_options options = {.record_size = sizeof options};
    memory.on_start = nullptr; /* so that the body runs */
    spawnlet_fork_fp(reinterpret_cast<spawnlet_body_t>(resolve_server_hostname), &request, &ret_info, &size,
                     &ret_syserr, &options, nullptr, nullptr, nullptr);
    result("%d", ret_syserr);
    if (size == sizeof(server_spawnlet_data_t))
        show_handed_back(*static_cast<server_spawnlet_data_t *>(ret_info));
}

static void wait_for_child(const words &w)
{
    for (size_t i = 2; i < w.size(); i++)
        fake.waitpid_results.insert(fake.waitpid_results.end(),
                                    w[i][1] == '*' ? std::stoul(w[i].substr(2)) : 1, number(w[i]));
    dnscache_wait_for_child(number(w[1]));
    result("%d polls, %d sleeps", fake.waits, fake.sleeps);
}

static void find_address(const words &w)
{
    struct sockaddr sa = {};
    sa.sa_family = static_cast<sa_family_t>(w[1] == "NULL" ? 0 : number(w[1]));
    const auto *address = static_cast<const char *>(get_sock_in_addr(w[1] == "NULL" ? nullptr : &sa));
    result("%ld", address == nullptr ? -1L : static_cast<long>(address - reinterpret_cast<char *>(&sa)));
}

static void display_address(const words &)
{
    struct sockaddr sa = {};
    sa.sa_family = AF_INET;
    sa.sa_data[0] = 'A';
    sa.sa_data[13] = static_cast<char>(0xff);
    display_sockaddr(&sa);
}

static void show_key(const words &w)
{
    char out[512];
    memset(out, 'x', sizeof out);
    result("%s", create_hostcache_id(expand(w[1]).c_str(), number(w[2]), number(w[3]), out));
    fake.log.push_back("= " + std::string(out, sizeof out));
}

static void fill_request(const words &w)
{
    struct addrinfo hints = {
        .ai_flags = 1, .ai_family = 10, .ai_socktype = 2, .ai_protocol = 17, .ai_addrlen = 5};
    hints.ai_next = &hints;
    const std::string host = expand(w[1]), service = expand(w[2]);
    server_addr_info request;
    memset(&request, 'x', sizeof request);
    const bool with_hints = w.size() > 4;
    const int rc = server_addr_init(text_of(host), text_of(service), with_hints ? &hints : nullptr,
                                    number(w[3]), &request);
    dnscache_addrinfo_image expected = {1, 10, 2, 17, 5, 0, 0, 0};
    if (sizeof hints == sizeof expected)
        memcpy(&expected, &hints, sizeof expected);
    EXPECT_EQ(memcmp(&request.hints, &expected, sizeof expected) == 0, with_hints);
    const auto *bytes = reinterpret_cast<const char *>(&request);
    fake.log.push_back("= " + std::to_string(rc) + " " +
                       std::string(bytes, offsetof(server_addr_info, hints)));
    result("family %d vrf %d", request.hints.ai_family, request.vrf);
}

static void run_command(const words &w);

/* Runs a command with its k-th malloc() failing, for each k until none fails. A failure must not change state. */
static void sweep(const words &w)
{
    const auto state = [] { return std::tuple(fake.blocks, local_cache, job_list, running_jobs); };
    for (int k = 1; k > 0; k++) {
        const auto before = state();
        fake.failing_malloc = k;
        run_command({w.begin() + 1, w.end()});
        if (fake.failing_malloc > 0)
            k = -1; /* no malloc() has failed: end the loop */
        fake.failing_malloc = 0;
        fake.log.push_back(k < 0 ? "= untouched" : state() == before ? "= all as before" : "= STATE CHANGED");
        std::erase_if(fake.log, [](const std::string &line) { return line[0] != '='; });
    }
}

static void prepend_null(const words &)
{
    result("%s", g_list_check_and_prepend(nullptr, &record, 1) == nullptr ? "NULL" : "a list");
    result("%s", g_list_check_and_prepend(&job_list, nullptr, 1) == job_list ? "same list" : "another list");
}

static void show_settings(const words &)
{
    result("blocking %d, cache %d, queue %u, initialised %d", blocking_timeout, cache_timeout, async_queue,
           cache_initialised);
}

static const std::map<std::string, std::function<void(const words &)>> commands = {
    {"set", set},
    {"field", set_field},
    {"record", make_record},
    {"cached", [](const words &) { local_cache = g_list_prepend(local_cache, on_heap(record)); }},
    {"cached-null", [](const words &) { local_cache = g_list_prepend(local_cache, nullptr); }},
    {"fill", fill_cache},
    {"job", add_job},
    {"answer", make_answer},
    {"resolver", script_resolver},
    {"handler", [](const words &) { signal(SIGCHLD, [](int) {}); }},
    {"state", show_state},
    {"sweep", sweep},
    {"request", fill_request},
    {"key", show_key},
    {"lookup", look_up},
    {"add",
     [](const words &w) {
         result("%d", add_entry_to_dns_cache(text_of(w[1]), number(w[2]), number(w[3]), nullptr));
     }},
    {"complete", complete},
    {"check", check_cache},
    {"decode", decode},
    {"refresh", [](const words &) { refresh_dns_cache(); }},
    {"purge", [](const words &) { remove_old_entries_from_local_cache(); }},
    {"remove", [](const words &w) { remove_entry_from_dns_cache(text_of(expand(w[1]))); }},
    {"prepend", prepend_job},
    {"prepend-null", prepend_null},
    {"resolve", run_job},
    {"display", [](const words &) { server_spawnlet_data_display(&record); }},
    {"display-null", [](const words &) { display_ip_addrs(nullptr); }},
    {"sockaddr", display_address},
    {"in_addr", find_address},
    {"init", [](const words &w) { dns_cache_init(static_cast<uint32_t>(number(w[1])), number(w[2])); }},
    {"settings", show_settings},
    {"lifetime", [](const words &w) { dns_cache_set_timeout(number(w[1])); }},
    {"wait", wait_for_child},
    {"trace",
     [](const words &w) { dnscache_trace("somebody", 120, "two  blanks %d %s\n", 7, expand(w[1]).c_str()); }},
    {"trace-zero", [](const words &) { dnscache_trace("somebody", 120, "ab%cd", 0); }},
    {"trace-entry", [](const words &) { dnscache_trace_enter("somebody", 1); }},
    {"trace-exit", [](const words &) { dnscache_trace_exit("somebody", 2); }},
    {"log", [](const words &) { result("%s \"%s\"", log_file != nullptr ? "open" : "closed", file_name); }},
};

static void run_command(const words &w)
{
    commands.at(w[0])(w);
}

/* Running the sections */

static std::string run_section(const section &section)
{
    std::istringstream script(section.text);
    std::string line, transcript;
    while (std::getline(script, line)) {
        if (!line.starts_with("> "))
            continue;
        transcript += line + "\n";
        std::istringstream text(line.substr(2));
        words w;
        for (std::string word; text >> word;)
            w.push_back(word);
        fake.log.clear();
        run_command(w);
        for (size_t i = 0, end; i < fake.log.size(); i = end) {
            for (end = i + 1; end < fake.log.size() && fake.log[end] == fake.log[i];)
                end++;
            transcript +=
                masked(fake.log[i]) + (end - i > 1 ? " (" + std::to_string(end - i) + " times)\n" : "\n");
        }
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
    std::sort(sections.begin(), sections.end(),
              [](const section &a, const section &b) { return a.file + a.title < b.file + b.title; });
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
        EXPECT_EQ(run_section(section), section.text);
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
    testing::UnitTest::GetInstance()->listeners().Append(new failures_to_stderr);
    return RUN_ALL_TESTS();
}
