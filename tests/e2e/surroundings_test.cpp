/*
 * Runs a daemon in a hostile environment: a world-writable folder for the debug log, a full disk, a standard output
 * that is closed or is a pipe without a reader, and names with special characters.
 */
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <algorithm>

#include "tests/support/real_jobs.h"

static constexpr char message[] = "sa is NULL";

static void trace()
{
    get_sock_in_addr(nullptr);
}

static bool has_message(const std::string &path)
{
    return content_of(path).find(message) != std::string::npos;
}

static std::string log_path()
{
    return "/tmp/dnscache.log." + std::to_string(getpid() & 0xffff);
}

static bool shell(const std::string &command)
{
    return system(("cd /tmp && log=" + log_path() + " && target=/tmp/target.$PPID && " + command).c_str()) ==
           0;
}

/* Traces to all four sinks: only the log must not get the message. Standard output and error are files here. */
static bool all_sinks_but_the_log_work(const std::string &log)
{
    uint64_t cursor = 0;
    linux_history_record entry;
    alarm(20);
    log_is_switched_on = true;
    linux_history_enable(1);
    linux_debug_enable(1);
    FILE *output = tmpfile(), *error = tmpfile();
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(error), STDERR_FILENO);
    trace();
    fflush(stdout);
    return log_file == nullptr && log == file_name && linux_history_read(&cursor, &entry) == 1 &&
           has_message("/proc/self/fd/1") && has_message("/proc/self/fd/2");
}

TEST(Surroundings, PlantedLogFileIsNotUsed)
{
    const struct {
        const char *plant;
        bool needs_root;
    } cases[] = {
        {"ln -s $target $log", false},
        {"ln -s /tmp/nowhere.$PPID $log", false},
        {"ln $target $log", false},
        {"mkfifo $log", false},
        {"mkdir $log", false},
        {"mknod $log c 1 3", true},
        {"touch $log && chown 65534 $log", true},
    };
    const std::string log = log_path();
    linux_partition_set(static_cast<uint32_t>(getpid()));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.plant);
        if (c.needs_root && geteuid() != 0)
            continue;
        ASSERT_TRUE(shell("rm -rf $log && : > $target && " + std::string(c.plant)));
        EXPECT_TRUE(in_its_own_process([&] { return all_sinks_but_the_log_work(log); }));
        EXPECT_TRUE(shell("test ! -s $target -a ! -e /tmp/nowhere.$PPID && rm -r $target $log"));
        for (const size_t lines : {1u, 2u}) /* the first process creates the log, the second appends */
            EXPECT_TRUE(in_its_own_process([&] {
                log_is_switched_on = true;
                trace();
                const std::string text = content_of(log);
                return std::count(text.begin(), text.end(), '\n') == static_cast<long>(lines);
            }));
    }
    remove(log_path().c_str());
}

static bool mount_over_tmp(const char *options)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/tmp", "tmpfs", 0, options) == 0;
}

static bool limit_files()
{
    const struct rlimit limit = {4096, 4096};
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

/* Writes far more text than fits. */
static int trace_1000_times(void *)
{
    for (int i = 0; i < 1000; i++)
        trace();
    return 0;
}

static bool survives(const std::function<bool()> &set_limit)
{
    const bool is_limited = set_limit();
    log_is_switched_on = true;
    freopen("/dev/null", "w", stdout);
    trace_1000_times(nullptr);
    FILE *output = tmpfile();
    const uint32_t code = run_job(trace_1000_times, nullptr, 20, nullptr, output, output).code;
    const size_t most = content_of(file_name).size();
    const bool is_empty = truncate(file_name, 0) == 0;
    trace();
    return is_limited && code == 0 && most <= 4096 && is_empty && has_message(file_name);
}

TEST(Surroundings, FullDiskOrFileSizeLimitOnlyLosesLogText)
{
    linux_partition_set(static_cast<uint32_t>(getpid()));
    EXPECT_TRUE(in_its_own_process([] { return survives(limit_files); }));
    if (geteuid() == 0) {
        EXPECT_TRUE(in_its_own_process([] { return survives([] { return mount_over_tmp("size=4k"); }); }));
    }
    remove(log_path().c_str());
}

TEST(Surroundings, NoLogWhereOthersCouldReplaceIt)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to mount folders for the log";
    const std::pair<const char *, bool> cases[] = {{"mode=1777", true},
                                                   {"mode=0755", true},
                                                   {"mode=0777", false},
                                                   {"mode=0775", false},
                                                   {"uid=65534", false}};
    for (const auto &[options, is_safe] : cases)
        EXPECT_TRUE(in_its_own_process([&, options = options, is_safe = is_safe] {
            const bool is_mounted = mount_over_tmp(options);
            log_is_switched_on = true;
            trace();
            return is_mounted && (log_file != nullptr) == is_safe;
        })) << options;
}

TEST(Surroundings, LogIsKeptOffDescriptors0To2)
{
    linux_partition_set(static_cast<uint32_t>(getpid()));
    EXPECT_TRUE(in_its_own_process([] {
        log_is_switched_on = true;
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        trace();
        return log_file != nullptr && fileno(log_file) > STDERR_FILENO && fcntl(STDIN_FILENO, F_GETFD) < 0 &&
               fcntl(STDOUT_FILENO, F_GETFD) < 0;
    }));
    remove(log_path().c_str());
}

TEST_F(RealJobs, ResolveWithClosedOrBrokenStdout)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    for (const bool is_closed : {true, false})
        EXPECT_TRUE(in_its_own_process([&] {
            signal(SIGPIPE, SIG_IGN);
            setvbuf(stdout, nullptr, _IONBF, 0);
            is_closed ? close(STDOUT_FILENO) : dup2(ends[1], STDOUT_FILENO);
            log_is_switched_on = false;
            const uint32_t handle = add_entry_to_dns_cache("pair.test", 1, 0, nullptr) == 0;
            return handle != 0 && complete_one().syserr == 0 && look_up("pair.test") == 0 &&
                   local_cache != nullptr;
        }));
    close(ends[1]);
}

/* Names pass the key, the child's record, the cache and every trace unchanged or cut, never as a format string. */
TEST_F(RealJobs, PassAnyNameUnchangedOrCut)
{
    const std::string names[] = {"any-%n%n%s%s%999999d",         "any-\033[2J\a\r\n\b",
                                 "any-\"'`$(reboot)\\",          "any-\xff\xfe\x80\xc3",
                                 "any-" + std::string(596, 'x'), "any-:1:2"};
    linux_partition_set(static_cast<uint32_t>(getpid()));
    log_is_switched_on = true;
    linux_history_enable(1);
    linux_debug_enable(1);
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        ASSERT_EQ(look_up(name.c_str()), 0);
        const auto *record = static_cast<const server_spawnlet_data_t *>(local_cache->data);
        EXPECT_EQ(record->serv_name, name.substr(0, 511));
        EXPECT_EQ(record->serv_id, (name + ":123:0").substr(0, 98));
        const std::string log = content_of(log_path());
        EXPECT_NE(log.find("cache id = " + (name + ":123:0").substr(0, 98) + "\n"), log.npos);
        EXPECT_NE(log.find("serv_name : " + name.substr(0, 511) + "\n"), log.npos);
        EXPECT_EQ(look_up(name.c_str()), 0);
        remove_entry_from_dns_cache(name.c_str());
        EXPECT_EQ(local_cache, nullptr);
    }
    remove(log_path().c_str());
}
