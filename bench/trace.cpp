/*
 * trace.cpp: measures one trace point with each combination of sinks. Standard output is always one of them.
 */
#include <fcntl.h>
#include <unistd.h>

#include "bench/bench.h"

constexpr char MARKER[] = "/bootflash/.enable_dns_debugs";

enum { HISTORY = 1, DEBUG_PRINT = 2, LOG_FILE = 4 };

static int standard_error;

/* Redirects standard error, to which the debug print goes, to /dev/null. */
static void switch_sinks_on(const benchmark::State &state)
{
    const int64_t sinks = state.range(0);
    const int null_device = open("/dev/null", O_WRONLY | O_CLOEXEC);
    standard_error = dup(STDERR_FILENO);
    if (null_device < 0 || standard_error < 0 || dup2(null_device, STDERR_FILENO) < 0)
        give_up("/dev/null");
    close(null_device);
    linux_history_enable((sinks & HISTORY) != 0);
    linux_debug_enable((sinks & DEBUG_PRINT) != 0);
    if ((sinks & LOG_FILE) != 0 && close(open(MARKER, O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) != 0)
        give_up(MARKER);
}

static void switch_sinks_off(const benchmark::State &)
{
    unlink(MARKER);
    linux_history_enable(0);
    linux_debug_enable(0);
    dup2(standard_error, STDERR_FILENO);
    close(standard_error);
    if (log_file != nullptr && truncate(file_name, 0) != 0)
        give_up(file_name);
}

/* This call only traces one message. */
static void trace_point(benchmark::State &state)
{
    for (auto _ : state)
        g_list_check_and_prepend(nullptr, nullptr, 0);
    if ((state.range(0) & LOG_FILE) != 0 &&
        (log_file == nullptr || lseek(fileno(log_file), 0, SEEK_END) <= 0))
        give_up("nothing was written to the debug log");
}

BENCHMARK(trace_point)
    ->ArgName("sinks")
    ->DenseRange(0, HISTORY | DEBUG_PRINT | LOG_FILE)
    ->Setup(switch_sinks_on)
    ->Teardown(switch_sinks_off)
    ->Iterations(2000);

/* With an empty cache this call only traces its entry and its exit, which go to HISTORY and DEBUG_PRINT only. */
static void entry_and_exit(benchmark::State &state)
{
    empty_cache();
    for (auto _ : state)
        remove_old_entries_from_local_cache();
}

BENCHMARK(entry_and_exit)
    ->ArgName("sinks")
    ->DenseRange(0, HISTORY | DEBUG_PRINT)
    ->Setup(switch_sinks_on)
    ->Teardown(switch_sinks_off);
