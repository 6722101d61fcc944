/*
 * parent.cpp: how much memory the process that forks has touched.
 */
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bench/bench.h"

static void *ballast = MAP_FAILED;
static size_t ballast_size;

/* What is not a file's: a fork has to copy where each page of it lies. */
static size_t touched_bytes()
{
    long resident = 0, of_files = 0;
    FILE *file = fopen("/proc/self/statm", "re");
    if (file == nullptr || fscanf(file, "%*d %ld %ld", &resident, &of_files) != 2)
        give_up("/proc/self/statm");
    fclose(file);
    return static_cast<size_t>(resident - of_files) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/* In pages of the usual size, as a heap is that has grown bit by bit. */
static void grow_to(size_t wanted)
{
    const size_t have = touched_bytes();
    if (have >= wanted)
        give_up("the small parent is larger than that");
    ballast_size = wanted - have;
    ballast = mmap(nullptr, ballast_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (ballast == MAP_FAILED || madvise(ballast, ballast_size, MADV_NOHUGEPAGE) != 0)
        give_up("no memory for a large parent");
    memset(ballast, 1, ballast_size);
}

void grow(const benchmark::State &state)
{
    grow_to(static_cast<size_t>(state.range(0)) << 20);
}

void grow_a_little(const benchmark::State &)
{
    grow_to(size_t{SMALL_MB} << 20);
}

void shrink(const benchmark::State &)
{
    munmap(ballast, ballast_size);
}
