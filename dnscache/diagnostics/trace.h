/*
 * trace.h: trace points. A message goes to up to four sinks, always in this order:
 *
 *   H  event history      while the platform records this class and subtype
 *   B  debug print        while the platform's debug flag is on
 *   F  debug log file     while the marker file exists; the function's name and line precede the message
 *   P  standard output    always
 *
 * TRACE writes to all four sinks, TRACE_ENTER and TRACE_EXIT write to H and B. Every sink gets the same text, which H
 * cuts to 511 characters. No newline is added. Sink failures are ignored.
 *
 * A helper that performs one step of an exported call traces under the name of that call, with TRACE_AS: readers of the
 * log know that name. Such helpers and their files keep it in `traced_as`.
 */
#ifndef DNSCACHE_DIAGNOSTICS_TRACE_H
#define DNSCACHE_DIAGNOSTICS_TRACE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "platform/evtrack.h"

/* The record that the event history takes. */
struct history_record {
    uint32_t subtype;
    char text[512];
};
static_assert(offsetof(history_record, text) == 4 && sizeof(history_record) == 516);

/*
 * One message on its way through the sinks. The first of H and F that is on renders it, and F and P reuse that text if
 * it fits into the history record. B renders for itself.
 */
struct trace_point {
    const char *const function;
    const int line;
    int length = -1; /* of the rendered message; -1: not rendered */
    history_record record;

    trace_point(const char *its_function, int its_line) : function(its_function), line(its_line) {}

    /* begin: write the message to H. Returns whether the caller must write it to B. */
    [[gnu::format(printf, 2, 3)]] bool begin(const char *format, ...);

    /* finish: write the message to F and P. */
    [[gnu::format(printf, 2, 3)]] void finish(const char *format, ...);
};

#pragma GCC diagnostic push /* TRACE_AS checks each format against its arguments */
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* A template, because dbgemit() has no variant that takes a va_list. */
template <typename... Args>
[[gnu::noinline]] void dnscache_trace(const char *function, int line, const char *format, Args... args)
{
    trace_point point(function, line);
    if (point.begin(format, args...))
        dbgemit(1, &evtrack_dbg_modname, 0, format, args...);
    point.finish(format, args...);
}

#pragma GCC diagnostic pop

/* Entry and exit of a function: H and B. */
void dnscache_trace_enter(const char *function, int line);
void dnscache_trace_exit(const char *function, int line);

/* The printf() never runs: it makes the compiler check the format, which it does not do for a template. */
#define TRACE_AS(function, ...)                                                                              \
    do {                                                                                                     \
        if (false)                                                                                           \
            printf(__VA_ARGS__);                                                                             \
        dnscache_trace(function, __LINE__, __VA_ARGS__);                                                     \
    } while (false)

/* A message that begins with "%s(%d)": its function and line, as in the log file. */
#define TRACE_HERE_AS(function, format, ...)                                                                 \
    TRACE_AS(function, format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define TRACE(...) TRACE_AS(__func__, __VA_ARGS__)
#define TRACE_HERE(...) TRACE_HERE_AS(__func__, __VA_ARGS__)
#define TRACE_ENTER() dnscache_trace_enter(__func__, __LINE__)
#define TRACE_EXIT() dnscache_trace_exit(__func__, __LINE__)

/* Returns for NULL what printf() of the GNU C library prints for it. */
static inline const char *text_or_null(const char *text)
{
    return text != nullptr ? text : "(null)";
}

#endif
