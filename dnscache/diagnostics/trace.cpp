/*
 * trace.cpp: the four sinks. Nothing is allocated for a message, and nothing but the open log file outlives
 * it: every condition is asked anew each time.
 */
#include "dnscache/diagnostics/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dnscache/dnscache.h"
#include "platform/platmgr.h"

FILE *log_file = nullptr;
char file_name[255] = "";

static constexpr char marker_file[] = "/bootflash/.enable_dns_debugs";
static constexpr char log_folder[] = "/tmp";

static void render(trace_text *text, const char *format, va_list args)
{
    text->record.text[0] = '\0';
    text->length = vsnprintf(text->record.text, sizeof text->record.text, format, args);
}

void trace_to_history(trace_text *text, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    render(text, format, args);
    va_end(args);
    text->record.subtype = DNSCACHE_TRACE_FLAG;
    const size_t length = offsetof(history_record, text) + strlen(text->record.text) + 1;
    evtrack_hist_event(DNSCACHE_TRACE_CLASS, static_cast<uint32_t>(length), &text->record);
}

/* Whether nobody else can put another file in the place of ours. */
static bool folder_keeps_files()
{
    struct stat folder;
    return fstatat(AT_FDCWD, log_folder, &folder, 0) == 0 &&
           (folder.st_uid == 0 || folder.st_uid == geteuid()) &&
           ((folder.st_mode & S_ISVTX) != 0 || (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

/* What others have planted at the path is neither waited for nor written to: the file is made now, or ours already. */
static bool log_file_is_ours()
{
    if (!folder_keeps_files())
        return false;
    const int made = open(file_name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (made >= 0) {
        close(made);
        return true;
    }
    struct stat found;
    return errno == EEXIST && lstat(file_name, &found) == 0 && S_ISREG(found.st_mode) &&
           found.st_uid == geteuid() && found.st_nlink == 1;
}

/* Out of the way of a host without standard streams, which prints all the same. */
static FILE *open_above_streams()
{
    int held[3], count = 0;
    for (int fd = 0; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0)
            held[count++] = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE *file = fopen(file_name, "a");
    while (count > 0)
        close(held[--count]);
    return file;
}

[[gnu::cold]] static bool open_log_file()
{
    snprintf(file_name, sizeof file_name - 1, "%s/dnscache.log.%d", log_folder,
             static_cast<int>(platmgr_partition_get() & 0xffff));
    log_file = log_file_is_ours() ? open_above_streams() : nullptr;
    if (log_file == nullptr)
        return false;
    /* Forked jobs write to it too, but no program that the host executes should. */
    fcntl(fileno(log_file), F_SETFD, FD_CLOEXEC);
    return true;
}

namespace
{

/* A log that has reached a limit of file sizes loses text; its host shall not end by that. */
struct xfsz_guard {
    struct sigaction own;

    xfsz_guard()
    {
        struct sigaction ignored = {};
        ignored.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignored, &own);
    }
    ~xfsz_guard()
    {
        sigaction(SIGXFSZ, &own, nullptr);
    }
    xfsz_guard(const xfsz_guard &) = delete;
    xfsz_guard &operator=(const xfsz_guard &) = delete;
};

} // namespace

bool trace_log_is_ready()
{
    struct stat marker;
    return stat(marker_file, &marker) == 0 && (log_file != nullptr || open_log_file());
}

void trace_to_log_file(trace_text *text, const char *function, int line, const char *format, ...)
{
    const xfsz_guard guard;
    fprintf(log_file, "%s() : %d ", function, line);
    va_list args;
    va_start(args, format);
    if (text->length < 0) {
        va_list again;
        va_copy(again, args);
        render(text, format, again);
        va_end(again);
    }
    if (text->is_whole())
        fwrite(text->record.text, 1, static_cast<size_t>(text->length), log_file);
    else
        vfprintf(log_file, format, args);
    va_end(args);
    /* Never leave text behind for a forked child to write a second time. */
    fflush(log_file);
}

/* H and B only. */
static void trace_to_platform(const char *format, const char *function, int line)
{
    trace_text text;
    if (trace_history_is_on())
        trace_to_history(&text, format, function, line);
    if (trace_debug_is_on())
        dbgemit(1, &evtrack_dbg_modname, 0, format, function, line);
}

void dnscache_trace_enter(const char *function, int line)
{
    trace_to_platform("Entering : %s : Line : %d", function, line);
}

void dnscache_trace_exit(const char *function, int line)
{
    trace_to_platform("Exiting: %s , Line : %d", function, line);
}
