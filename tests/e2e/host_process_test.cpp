/*
 * Checks what the library changes in the process that it is linked into, and in that process's own children.
 */
#include <fcntl.h>
#include <glib.h>
#include <sys/time.h>

#include <map>
#include <sstream>

#include "tests/support/real_jobs.h"

/* Hygiene: the table that is made here must equal the one in docs/hygiene.md. */

using contents = std::set<std::string>;

static const char *const columns[] = {"signals", "mask",        "timers", "descriptors", "children",
                                      "folder",  "environment", "umask",  "errno"};
using snapshot = std::array<contents, std::size(columns)>;

static contents words_of(const std::string &text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

static contents dispositions()
{
    contents found;
    for (int number = 1; number < NSIG; number++) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL)
            found.insert(std::string(number == SIGCHLD ? "SIGCHLD" : strsignal(number)) +
                         (action.sa_handler == SIG_IGN ? " ignored" : " handled"));
    }
    return found;
}

static contents descriptors()
{
    contents found;
    for (const int fd : open_descriptors())
        found.insert(std::to_string(fd) +
                     std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string() +
                     ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0 ? " without close-on-exec" : ""));
    return found;
}

static contents children()
{
    return words_of(content_of("/proc/thread-self/children"));
}

static contents timers()
{
    contents found = words_of(content_of("/proc/self/timers"));
    for (const auto which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        struct itimerval timer;
        if (getitimer(which, &timer) == 0 && timerisset(&timer.it_value))
            found.insert(std::to_string(which));
    }
    return found;
}

static snapshot take_snapshot(int error)
{
    const std::string status = content_of("/proc/self/status");
    contents environment;
    for (char **variable = environ; *variable != nullptr; variable++)
        environment.insert(*variable);
    return {dispositions(),
            {status.substr(status.find("SigBlk:"), 24)},
            timers(),
            descriptors(),
            children(),
            {std::filesystem::current_path()},
            environment,
            {status.substr(status.find("Umask:"), 11)},
            {std::to_string(error)}};
}

static std::string difference(const contents &before, const contents &after)
{
    std::vector<std::string> more, fewer;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(more));
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(fewer));
    if (more.empty() && fewer.empty())
        return "-";
    if (!more.empty() && !isdigit(more[0][0]))
        return more[0];
    for (const std::string &one : more)
        if (one.ends_with(" without close-on-exec"))
            return one;
    return (more.empty() ? "" : "+" + std::to_string(more.size())) +
           (fewer.empty() ? "" : "-" + std::to_string(fewer.size()));
}

static uint32_t the_queue;
static linux_completion taken;
static GList *a_list;
static server_spawnlet_data_t record; /* empty */
static const struct addrinfo hints = {};
bool log_is_switched_on;

extern "C" int __real_stat(const char *path, struct stat *status);
extern "C" int __wrap_stat(const char *path, struct stat *status)
{
    if (log_is_switched_on && strcmp(path, "/bootflash/.enable_dns_debugs") == 0)
        return 0;
    return __real_stat(path, status);
}

static void init()
{
    the_queue = linux_queue_create();
    dns_cache_init(the_queue, 1);
}

static void look_up(const char *name)
{
    struct addrinfo *chain = nullptr;
    if (getaddrinfo_async_mq3(name, "123", &hints, 0, &chain) == 0)
        freeaddrinfo(chain);
}

static void cache_one()
{
    init();
    look_up("pair.test");
    signal(SIGCHLD, SIG_DFL);
}

static void finish_one()
{
    init();
    add_entry_to_dns_cache("pair.test", 123, 0, nullptr);
    taken = next_completion(the_queue);
    memcpy(&record, taken.ret_info, sizeof record); /* freed by the next linux_queue_next() */
}

static const struct row {
    const char *call;
    void (*prepare)();
    void (*make)();
    size_t children_after = 0, children_before = 0;
} rows[] = {
    {"getaddrinfo_async_mq3: refused", init, [] { getaddrinfo_async_mq3(nullptr, "", nullptr, 0, nullptr); }},
    {"getaddrinfo_async_mq3: a hit", cache_one, [] { look_up("pair.test"); }},
    {"getaddrinfo_async_mq3: a miss", init, [] { look_up("pair.test"); }},
    {"getaddrinfo_async_mq3: no such name", init, [] { look_up("nosuch.test"); }},
    {"getaddrinfo_async_mq3: -3, while the job runs", init, [] { look_up("stuck.test"); }, 1},
    {"dns_cache_init", [] { the_queue = linux_queue_create(); }, [] { dns_cache_init(the_queue, 1); }},
    {"dns_cache_init: no queue", [] {}, [] { dns_cache_init(4000, 1); }},
    {"dns_cache_set_timeout", init, [] { dns_cache_set_timeout(1); }},
    {"dnscache_spawnletcb_job_done", finish_one,
     [] { dnscache_spawnletcb_job_done(taken.handle, 0, &record, sizeof record, 0); }},
    {"check_local_cache", cache_one,
     [] {
         struct addrinfo *chain = nullptr;
         check_local_cache(local_cache, "pair.test:123:0", &chain);
         freeaddrinfo(chain);
     }},
    {"refresh_dns_cache", cache_one, refresh_dns_cache},
    {"refresh_dns_cache: expired, while the job runs",
     [] {
         cache_one();
         snprintf(static_cast<server_spawnlet_data_t *>(local_cache->data)->serv_name, 20, "stuck.test");
         dns_cache_set_timeout(-1);
     },
     refresh_dns_cache, 1},
    {"add_entry_to_dns_cache: while the job runs", init,
     [] { add_entry_to_dns_cache("stuck.test", 123, 0, nullptr); }, 1},
    {"remove_old_entries_from_local_cache", cache_one, remove_old_entries_from_local_cache},
    {"remove_entry_from_dns_cache", cache_one, [] { remove_entry_from_dns_cache("pair.test"); }},
    {"g_list_check_and_prepend", init, [] { a_list = g_list_check_and_prepend(&a_list, malloc(1), 10); }},
    {"free_node", init, [] { free_node(malloc(1)); }},
    {"destroy_dns_cache", cache_one, [] { destroy_dns_cache(local_cache), local_cache = nullptr; }},
    {"server_addr_init", init,
     [] {
         server_addr_info request;
         server_addr_init("pair.test", "123", nullptr, 0, &request);
     }},
    {"resolve_server_hostname", init,
     [] {
         server_addr_info request;
         server_addr_init("nosuch.test", "123", nullptr, 0, &request);
         resolve_server_hostname(&request);
     }},
    {"get_list_length", init, [] { get_list_length(nullptr); }},
    {"get_res_back", init,
     [] {
         struct addrinfo *chain;
         get_res_back(&record, &chain);
     }},
    {"server_spawnlet_data_display", init, [] { server_spawnlet_data_display(&record); }},
    {"display_ip_addrs", init, [] { display_ip_addrs(&hints); }},
    {"display_sockaddr", init, [] { display_sockaddr(reinterpret_cast<struct sockaddr *>(&record)); }},
    {"get_sock_in_addr", init, [] { get_sock_in_addr(nullptr); }},
    {"dnscache_wait_for_child: not a child of the process", init, [] { dnscache_wait_for_child(1); }},
    {"dnscache_wait_for_child: a child that exits",
     [] {
         init();
         if (fork() == 0)
             _exit(0);
     },
     [] { dnscache_wait_for_child(std::stoi(*children().begin())); }, 0, 1},
    {"any call that traces: the first while the debug log is on", [] { init(), log_is_switched_on = true; },
     [] { get_sock_in_addr(nullptr); }},
    {"linux_queue_create", [] {}, [] { linux_queue_create(); }},
    {"linux_queue_next: no completion is waiting", init, [] { linux_queue_next(the_queue, &taken); }},
    {"linux_queue_dispatch: no completion is waiting", init,
     [] { linux_queue_dispatch(the_queue, dnscache_spawnletcb_job_done, nullptr, nullptr); }},
    {"linux_jobs_started", init,
     [] {
         linux_job_counters counters;
         linux_jobs_started(&counters);
     }},
    {"linux_history_enable", init, [] { linux_history_enable(1); }},
    {"linux_history_read", [] { init(), linux_history_enable(1); },
     [] {
         uint64_t cursor = 0;
         linux_history_record entry;
         linux_history_read(&cursor, &entry);
     }},
    {"linux_debug_enable", init, [] { linux_debug_enable(1); }},
    {"linux_vrf_list", init,
     [] {
         size_t count;
         free(linux_vrf_list(&count));
     }},
    {"linux_vrf_check", init, [] { linux_vrf_check(0, nullptr, 0); }},
    {"linux_partition_set", init, [] { linux_partition_set(60001); }},
};

/* After its hand-back, a child still has to exit and to be reaped. */
static void wait_for_exits(size_t remaining)
{
    linux_completion none;
    EXPECT_TRUE(eventually(
        [remaining] { return children().size() <= remaining || waitpid(-1, nullptr, WNOHANG) < 0; }));
    EXPECT_NE(linux_queue_next(the_queue, &none), 1);
}

/* Sets non-default values, so that a reset to the default shows too. */
static void set_non_defaults()
{
    const struct itimerval timer = {.it_interval = {}, .it_value = {.tv_sec = 1000, .tv_usec = 0}};
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    signal(SIGUSR1, [](int) {});
    signal(SIGXFSZ, [](int) {});
    setitimer(ITIMER_PROF, &timer, nullptr);
    umask(027);
    EXPECT_EQ(chdir("/tmp"), 0);
}

static std::string line_of(const row &row)
{
    constexpr int sentinel = 4242;
    set_non_defaults();
    row.prepare();
    wait_for_exits(row.children_before);
    const snapshot before = take_snapshot(sentinel);
    errno = sentinel;
    row.make();
    const int error = errno;
    wait_for_exits(row.children_after);
    const snapshot after = take_snapshot(error);
    std::string line = std::string("| ") + row.call + " |";
    for (size_t i = 0; i < std::size(columns); i++)
        line += " " + difference(before[i], after[i]) + " |";
    return line;
}

/* Makes each call in a fresh process. */
TEST(HostProcess, ChangesAreThoseInTheHygieneTable)
{
    using text = std::array<char, 1000>;
    auto *line = shared<text>();
    std::string table = "| call |", rule = "|---|", manual, documented;
    for (const char *column : columns)
        table += std::string(" ") + column + " |", rule += "---|";
    table += "\n" + rule + "\n";
    linux_partition_set(static_cast<uint32_t>(getpid()));
    for (const row &row : rows) {
        SCOPED_TRACE(row.call);
        EXPECT_TRUE(in_its_own_process([&] {
            snprintf(line->data(), line->size(), "%s", line_of(row).c_str());
            return !testing::Test::HasFailure();
        }));
        table += std::string(line->data()) + "\n";
    }
    for (const std::string &name : words_of(content_of(EXPORTS)))
        if (name.ends_with(";") && name.find('_') != name.npos && name != "log_file;" &&
            name != "file_name;") {
            EXPECT_NE(table.find("| " + name.substr(0, name.size() - 1)), table.npos) << name;
        }
    std::istringstream lines(content_of(HYGIENE));
    while (std::getline(lines, manual))
        documented += manual.starts_with("|") ? manual + "\n" : "";
    EXPECT_EQ(documented, table);
    remove(("/tmp/dnscache.log." + std::to_string(getpid() & 0xffff)).c_str());
}

/* The host's own children: it waits for them in four ways while lookups run. */

static pid_t released_in_a_job; /* a stopped child of the host, or 0 */

/* Makes the child exit while the job runs and the lookup waits. */
void before_hand_back()
{
    const std::string stat = "/proc/" + std::to_string(released_in_a_job) + "/stat";
    if (released_in_a_job > 0 && kill(released_in_a_job, SIGCONT) == 0)
        eventually([&] { return content_of(stat).find(") Z ") != std::string::npos; });
}

static pid_t stopped_child(int code)
{
    const pid_t pid = fork();
    if (pid == 0) {
        raise(SIGSTOP);
        _exit(code);
    }
    waitpid(pid, nullptr, WUNTRACED);
    return pid;
}

/* As the manual demands: restores the host's SIGCHLD action, and raises a SIGCHLD that it may have missed. */
static void look_up_keeping_sigchld(pid_t child)
{
    struct sigaction own;
    sigaction(SIGCHLD, nullptr, &own);
    released_in_a_job = child;
    look_up("pair.test");
    released_in_a_job = 0;
    sigaction(SIGCHLD, &own, nullptr);
    raise(SIGCHLD);
    remove_entry_from_dns_cache("pair.test");
}

static int by_waitpid(int code)
{
    int status = -1;
    const pid_t pid = stopped_child(code);
    look_up_keeping_sigchld(pid);
    return waitpid(pid, &status, 0) == pid ? status : -1;
}

static int by_child_watch(int code)
{
    int status = -1;
    const pid_t pid = stopped_child(code);
    const auto note = [](GPid, gint ended, gpointer out) { *static_cast<int *>(out) = ended; };
    g_child_watch_add(pid, note, &status);
    look_up_keeping_sigchld(pid);
    while (status < 0)
        g_main_context_iteration(nullptr, TRUE);
    return status;
}

static int by_popen(int code)
{
    char pid[20] = "";
    FILE *output = popen(("echo $$; kill -s STOP $$; exit " + std::to_string(code)).c_str(), "r");
    if (fgets(pid, sizeof pid, output) == nullptr)
        return -1;
    waitpid(atoi(pid), nullptr, WUNTRACED);
    look_up_keeping_sigchld(atoi(pid));
    return pclose(output);
}

/* A background job ends during system(). */
static int by_system(int code)
{
    EXPECT_EQ(add_entry_to_dns_cache("nosuch.test", code, 0, nullptr), 0);
    const int status = system(("exit " + std::to_string(code)).c_str());
    while (linux_queue_dispatch(the_queue, dnscache_spawnletcb_job_done, nullptr, nullptr) == 0)
        becomes_readable(the_queue);
    return status;
}

TEST(HostProcess, KeepsTheExitCodesOfItsOwnChildren)
{
    init();
    int stolen = 0;
    for (int i = 0; i < 1000; i++) {
        int (*const ways[])(int) = {by_waitpid, by_child_watch, by_popen, by_system};
        const int code = 1 + i % 100, status = ways[i % 4](code);
        stolen += !WIFEXITED(status) || WEXITSTATUS(status) != code;
    }
    EXPECT_EQ(stolen, 0);
}

static size_t resident_bytes()
{
    size_t pages = 0;
    sscanf(content_of("/proc/self/statm").c_str(), "%*u %zu", &pages);
    return pages * static_cast<size_t>(getpagesize());
}

/* scripts/soak makes ten times as many lookups. */
TEST_F(RealJobs, LeakNothingInTheHost)
{
    const auto serve = [this](int hits, int misses) {
        for (int i = 0; i < misses; i++) {
            remove_entry_from_dns_cache("pair.test");
            if (i % 2 == 0 && add_entry_to_dns_cache("pair.test", 123, 0, nullptr) == 0)
                complete_one();
            look_up("pair.test");
        }
        for (int i = 0; i < hits; i++)
            look_up("pair.test");
    };
    const int output = dup(STDOUT_FILENO), null_device = open("/dev/null", O_WRONLY);
    dup2(null_device, STDOUT_FILENO);
    size_t memory = 0, held = 0;
    for (int i = 0; i < 2; i++) { /* the first pass also loads code, the test's too */
        serve(1000, 100);
        held = descriptors_held();
        memory = resident_bytes();
    }
    serve(100'000 * soak_factor(), 4'000 * soak_factor()); /* half of the misses in the background */
    const size_t held_now = descriptors_held(), memory_now = resident_bytes();
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    EXPECT_EQ(held_now, held);
    EXPECT_TRUE(children().empty());
    /* A sanitizer holds freed memory back. */
    EXPECT_TRUE(has_sanitizer() || memory_now < memory + (64 << 10)) << memory << " -> " << memory_now;
}
