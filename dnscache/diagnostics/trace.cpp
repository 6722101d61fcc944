/*
 * trace.cpp: the four sinks. No memory is allocated for a message. Only the log file stays open between messages: every
 * condition is checked again for each message.
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

static constexpr uint32_t TRACE_CLASS = 0x730000;
static constexpr int TRACE_FLAG = 101; /* both the history subtype and the debug flag */

static constexpr char marker_file[] = "/bootflash/.enable_dns_debugs";
static constexpr char log_folder[] = "/tmp";

/* Whether no other user can replace our file in the folder. */
static bool folder_keeps_files()
{
    struct stat folder;
    return fstatat(AT_FDCWD, log_folder, &folder, 0) == 0 &&
           (folder.st_uid == 0 || folder.st_uid == geteuid()) &&
           ((folder.st_mode & S_ISVTX) != 0 || (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

/* Creates the file exclusively, or accepts our own regular file: another user may have put a FIFO or a link there. */
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

/* Keeps the log off descriptors 0 to 2: a host without standard streams may still print to them. */
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
    /* Forked jobs write to the log too; programs that the host executes must not inherit it. */
    fcntl(fileno(log_file), F_SETFD, FD_CLOEXEC);
    return true;
}

namespace
{

/* If the log reaches the limit on file sizes, text is lost, but SIGXFSZ must not kill the host. */
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

static bool log_is_ready()
{
    struct stat marker;
    return stat(marker_file, &marker) == 0 && (log_file != nullptr || open_log_file());
}

static void render(trace_point *point, const char *format, va_list args)
{
    point->record.text[0] = '\0'; /* in case vsnprintf() fails */
    point->length = vsnprintf(point->record.text, sizeof point->record.text, format, args);
}

[[gnu::cold]] static void write_history(trace_point *point, const char *format, va_list args)
{
    render(point, format, args);
    point->record.subtype = TRACE_FLAG;
    const size_t length = offsetof(history_record, text) + strlen(point->record.text) + 1;
    evtrack_hist_event(TRACE_CLASS, static_cast<uint32_t>(length), &point->record);
}

bool trace_point::begin(const char *format, ...)
{
    if (evtrack_hist_event_subtype_check(TRACE_CLASS, TRACE_FLAG) == 0) {
        va_list args;
        va_start(args, format);
        write_history(this, format, args);
        va_end(args);
    }
    return evtrack_chk_int(TRACE_FLAG, 0, 0, 1) != 0;
}

/* Prints the rendered text, or renders again if there is none or it was cut. */
static void print(FILE *out, const trace_point *point, const char *format, va_list args)
{
    if (point->length >= 0 && point->length < static_cast<int>(sizeof point->record.text))
        fwrite(point->record.text, 1, static_cast<size_t>(point->length), out);
    else
        vfprintf(out, format, args);
}

[[gnu::cold]] static void write_log_file(const trace_point *point, const char *format, va_list args)
{
    const xfsz_guard guard;
    fprintf(log_file, "%s() : %d ", point->function, point->line);
    print(log_file, point, format, args);
    /* A forked child would write text that is still in the buffer a second time. */
    fflush(log_file);
}

void trace_point::finish(const char *format, ...)
{
    va_list args;
    if (log_is_ready()) {
        if (length < 0) {
            va_start(args, format);
            render(this, format, args);
            va_end(args);
        }
        va_start(args, format);
        write_log_file(this, format, args);
        va_end(args);
    }
    va_start(args, format);
    print(stdout, this, format, args);
    va_end(args);
}

/* Writes to H and B only. */
static void trace_to_platform(const char *format, const char *function, int line)
{
    trace_point point(function, line);
    if (point.begin(format, function, line))
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
