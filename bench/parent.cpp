/*
 * parent.cpp: sets how much memory the forking process has touched.
 */
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bench/bench.h"

static void *ballast = MAP_FAILED;
static size_t ballast_size;

/* Resident memory without pages of files: a fork copies the page tables of this part. */
static size_t touched_bytes()
{
    long resident = 0, shared = 0;
    FILE *file = fopen("/proc/self/statm", "re");
    if (file == nullptr || fscanf(file, "%*d %ld %ld", &resident, &shared) != 2)
        give_up("cannot read /proc/self/statm");
    fclose(file);
    return static_cast<size_t>(resident - shared) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/* No huge pages: a heap that has grown bit by bit has none. */
static void grow_to(size_t wanted)
{
    const size_t touched = touched_bytes();
    if (touched >= wanted)
        give_up("the process has already touched more memory than this benchmark wants");
    ballast_size = wanted - touched;
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
