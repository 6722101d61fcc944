/*
 * vrf_nscd.cpp: the tables of nscd, the name service caching daemon. nscd shares them as memory: a process that has
 * asked it once keeps them mapped, and its children inherit the mapping. So hiding nscd's socket is not enough: a
 * mapped table still has the answers of the host's network.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/vrf_binding.h"

static constexpr char maps_file[] = "/proc/self/maps";

/* The zeros date the table's last update to 1970. The C library drops such an old table, and asks for a new one. */
static bool map_empty_table_over(void *table, void *end)
{
    const auto size = static_cast<size_t>(static_cast<char *>(end) - static_cast<char *>(table));
    return mmap(table, size, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == table;
}

/* line: one line of /proc/self/maps. */
static int forget_if_table(const char *line)
{
    void *table, *end;
    char sharing;
    const bool is_table = strstr(line, "/nscd/") != nullptr &&
                          sscanf(line, "%p-%p %*3c%c", &table, &end, &sharing) == 3 && sharing == 's';
    return !is_table || map_empty_table_over(table, end) ? 0 : vrf_failed(errno, "a table of nscd");
}

static char *end_of_line(char *line, const char *end)
{
    return static_cast<char *>(memchr(line, '\n', static_cast<size_t>(end - line)));
}

/* Does not use stdio: that alone would take as long as the kernel takes to generate the whole file. */
static int forget_tables(int maps)
{
    char text[PATH_MAX + 4096];
    size_t held = 0; /* bytes of an incomplete line, at the start of text */
    ssize_t got;
    while ((got = read(maps, text + held, sizeof text - held)) > 0) {
        char *line = text, *newline;
        const char *end = text + held + got;
        for (; (newline = end_of_line(line, end)) != nullptr; line = newline + 1) {
            *newline = '\0';
            const int error = forget_if_table(line);
            if (error != 0)
                return error;
        }
        held = static_cast<size_t>(end - line);
        memmove(text, line, held);
        if (held == sizeof text) /* the line is too long to be that of a table */
            held = 0;
    }
    return got == 0 ? 0 : vrf_failed(errno, "%s", maps_file);
}

int vrf_forget_nscd()
{
    const int maps = open(maps_file, O_RDONLY | O_CLOEXEC);
    if (maps < 0)
        return vrf_failed(errno, "%s", maps_file);
    const int error = forget_tables(maps);
    close(maps);
    return error;
}
