/*
 * trace.h: one trace point, up to four sinks, always in this order.
 *
 *   H  event history      while the platform records this class and subtype
 *   B  debug print        while the platform's debug flag is on
 *   F  debug log file     while the marker file exists; the message follows the function's name and line
 *   P  standard output    always
 *
 * TRACE reaches all four, TRACE_ENTER and TRACE_EXIT reach H and B. Every sink gets the same text and adds
 * nothing to it. No sink's failure is anybody's business.
 *
 * A helper that is one step of an exported call traces under that call's name, TRACE_AS: it is the name that
 * a reader of the log knows.
 */
#ifndef DNSCACHE_DIAGNOSTICS_TRACE_H
#define DNSCACHE_DIAGNOSTICS_TRACE_H

#include <stdio.h>

#include "platform/evtrack.h"

constexpr int DNSCACHE_TRACE_CLASS = 0x730000;
constexpr int DNSCACHE_TRACE_FLAG = 101; /* history subtype and debug flag alike */

/* The sinks, each with its condition, but for B: its print takes the arguments themselves, not a list of them. */
[[gnu::format(printf, 1, 2)]] void trace_to_history(const char *format, ...);
bool trace_debug_is_on();
[[gnu::format(printf, 3, 4)]] void trace_to_log_file(const char *function, int line, const char *format, ...);
[[gnu::format(printf, 1, 2)]] void trace_to_stdout(const char *format, ...);

/* The formats below were checked against their arguments where the macros were used. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* A template, so that the debug print can be given the format and the arguments as they were written. */
template <typename... Args>
[[gnu::noinline]] void dnscache_trace_to_platform(const char *format, Args... args)
{
    trace_to_history(format, args...);
    if (trace_debug_is_on())
        dbgemit(1, &evtrack_dbg_modname, 0, format, args...);
}

template <typename... Args>
[[gnu::noinline]] void dnscache_trace(const char *function, int line, const char *format, Args... args)
{
    dnscache_trace_to_platform(format, args...);
    trace_to_log_file(function, line, format, args...);
    trace_to_stdout(format, args...);
}

#pragma GCC diagnostic pop

void dnscache_trace_enter(const char *function, int line);
void dnscache_trace_exit(const char *function, int line);

/* The call that never runs lets the compiler check the format; a template's own arguments it does not check. */
#define TRACE_AS(function, ...)                                                                              \
    do {                                                                                                     \
        if (false)                                                                                           \
            printf(__VA_ARGS__);                                                                             \
        dnscache_trace(function, __LINE__, __VA_ARGS__);                                                     \
    } while (false)

/* A message that begins with "%s(%d)" and names its own place there: the same two values as in the log file. */
#define TRACE_HERE_AS(function, format, ...)                                                                 \
    TRACE_AS(function, format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define TRACE(...) TRACE_AS(__func__, __VA_ARGS__)
#define TRACE_HERE(...) TRACE_HERE_AS(__func__, __VA_ARGS__)
#define TRACE_ENTER() dnscache_trace_enter(__func__, __LINE__)
#define TRACE_EXIT() dnscache_trace_exit(__func__, __LINE__)

/* A text that may be missing. */
static inline const char *text_or_null(const char *text)
{
    return text != nullptr ? text : "(null)";
}

#endif
