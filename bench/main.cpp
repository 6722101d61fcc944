/*
 * main.cpp: runs the benchmarks. Standard output, to which the library prints its trace, is /dev/null; therefore the
 * results go to standard error and into the file of --benchmark_out.
 */
#include <iostream>
#include <malloc.h>
#include <stdio.h>
#include <string>
#include <unistd.h>

#include "bench/bench.h"

/* Heap of 64 records of four addresses. Filled once before: what GLib and libc keep for good does not count. */
static size_t heap_of_a_full_cache()
{
    fill_cache_with(4);
    empty_cache();
    const size_t empty = mallinfo2().uordblks;
    fill_cache_with(4);
    return mallinfo2().uordblks - empty;
}

int main(int argc, char **argv)
{
    close_range(STDERR_FILENO + 1, ~0U, 0); /* inherited descriptors: a daemon has none of them */
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        give_up("/dev/null");
    benchmark::AddCustomContext("heap_of_a_full_cache", std::to_string(heap_of_a_full_cache()));
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    empty_cache();
    return EXIT_SUCCESS;
}
