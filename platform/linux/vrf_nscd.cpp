/*
 * vrf_nscd.cpp: the tables of the name service caching daemon. It shares them as memory: a daemon that has ever asked it
 * holds a mapping, which its children inherit, and no hidden socket is in the way of what the host's network answered.
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

/* The C library drops a table that has not been updated for long, as this one since 1970, and asks for a new one. */
static bool put_empty_table_over(void *table, void *end)
{
    const auto size = static_cast<size_t>(static_cast<char *>(end) - static_cast<char *>(table));
    return mmap(table, size, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == table;
}

/* One line of what the process has mapped. */
static int forget_if_table(const char *line)
{
    void *table, *end;
    char sharing;
    const bool is_table = strstr(line, "/nscd/") != nullptr &&
                          sscanf(line, "%p-%p %*3c%c", &table, &end, &sharing) == 3 && sharing == 's';
    return !is_table || put_empty_table_over(table, end) ? 0 : vrf_failed(errno, "a table of nscd");
}

static char *end_of_line(char *line, const char *end)
{
    return static_cast<char *>(memchr(line, '\n', static_cast<size_t>(end - line)));
}

/* By hand: a stream's buffers and lines take as long as the kernel does for the whole file. */
static int forget_tables(int maps)
{
    char text[PATH_MAX + 4096];
    size_t held = 0; /* the beginning of a line */
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
        if (held == sizeof text) /* longer than any line of a table is */
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
