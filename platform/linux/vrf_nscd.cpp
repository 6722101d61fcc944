/*
 * vrf_nscd.cpp: the tables of the name service caching daemon. It shares them as memory: a daemon that has ever asked it
 * holds a mapping, which its children inherit, and no hidden socket is in the way of what the host's network answered.
 */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

#include "platform/linux/vrf_binding.h"

static constexpr char maps_file[] = "/proc/self/maps";

/* The C library asks the daemon for a new table when one has not been updated for long, as this one since 1970. */
static bool put_empty_table_over(unsigned long begin, unsigned long end)
{
    void *table = reinterpret_cast<void *>(begin);
    return mmap(table, end - begin, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == table;
}

int vrf_forget_nscd()
{
    FILE *maps = fopen(maps_file, "re");
    if (maps == nullptr)
        return vrf_failed(errno, "%s", maps_file);
    int error = 0;
    char line[PATH_MAX + 100];
    while (error == 0 && fgets(line, sizeof line, maps) != nullptr) {
        unsigned long begin, end;
        char sharing;
        if (sscanf(line, "%lx-%lx %*3c%c", &begin, &end, &sharing) == 3 && sharing == 's' &&
            strstr(line, "/nscd/") != nullptr && !put_empty_table_over(begin, end))
            error = vrf_failed(errno, "a table of nscd");
    }
    fclose(maps);
    return error;
}
