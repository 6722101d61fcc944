/*
 * trace.cpp: one trace point, with each combination of its sinks. Standard output always is one.
 */
#include <fcntl.h>
#include <unistd.h>

#include "bench/bench.h"

constexpr char MARKER[] = "/bootflash/.enable_dns_debugs";

enum { HISTORY = 1, DEBUG_PRINT = 2, LOG_FILE = 4 };

static int standard_error;

/* The debug print goes where standard error leads, so that leads nowhere. */
static void switch_sinks_on(const benchmark::State &state)
{
    const int64_t sinks = state.range(0);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    standard_error = dup(STDERR_FILENO);
    if (nowhere < 0 || standard_error < 0 || dup2(nowhere, STDERR_FILENO) < 0)
        give_up("/dev/null");
    close(nowhere);
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

/* A call that does nothing but trace one message. */
static void trace_point(benchmark::State &state)
{
    for (auto _ : state)
        g_list_check_and_prepend(nullptr, nullptr, 0);
    if ((state.range(0) & LOG_FILE) != 0 &&
        (log_file == nullptr || lseek(fileno(log_file), 0, SEEK_END) <= 0))
        give_up("no debug log");
}

BENCHMARK(trace_point)
    ->ArgName("sinks")
    ->DenseRange(0, HISTORY | DEBUG_PRINT | LOG_FILE)
    ->Setup(switch_sinks_on)
    ->Teardown(switch_sinks_off)
    ->Iterations(2000);

/* A call that does nothing but trace its entry and its exit, which go to the first two sinks only. */
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
