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

/* The C library drops a table that has not been updated for long, as this one since 1970, and asks for a new one. */
static bool put_empty_table_over(void *table, void *end)
{
    const auto size = static_cast<size_t>(static_cast<char *>(end) - static_cast<char *>(table));
    return mmap(table, size, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == table;
}

int vrf_forget_nscd()
{
    FILE *maps = fopen(maps_file, "re");
    if (maps == nullptr)
        return vrf_failed(errno, "%s", maps_file);
    int error = 0;
    char line[PATH_MAX + 100];
    while (error == 0 && fgets(line, sizeof line, maps) != nullptr) {
        void *table, *end;
        char sharing;
        if (sscanf(line, "%p-%p %*3c%c", &table, &end, &sharing) == 3 && sharing == 's' &&
            strstr(line, "/nscd/") != nullptr && !put_empty_table_over(table, end))
            error = vrf_failed(errno, "a table of nscd");
    }
    fclose(maps);
    return error;
}
