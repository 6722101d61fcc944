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

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "platform/evtrack.h"

constexpr int DNSCACHE_TRACE_CLASS = 0x730000;
constexpr int DNSCACHE_TRACE_FLAG = 101; /* history subtype and debug flag alike */

/* What the event history takes. */
struct history_record {
    uint32_t subtype;
    char text[512];
};
static_assert(offsetof(history_record, text) == 4 && sizeof(history_record) == 516);

/* A message in memory: rendered for the first of H and F, and not again for the sinks after it, if it fits. */
struct trace_text {
    int length = -1; /* without its end; -1: not rendered */
    history_record record;

    bool is_whole() const
    {
        return length >= 0 && length < static_cast<int>(sizeof record.text);
    }
};

/* The sinks that have more to do than print, and their conditions. */
[[gnu::cold, gnu::format(printf, 2, 3)]] void trace_to_history(trace_text *text, const char *format, ...);
[[gnu::cold, gnu::format(printf, 4, 5)]] void trace_to_log_file(trace_text *text, const char *function,
                                                                int line, const char *format, ...);
bool trace_log_is_ready(); /* opens it, if it has to */

static inline bool trace_history_is_on()
{
    return evtrack_hist_event_subtype_check(DNSCACHE_TRACE_CLASS, DNSCACHE_TRACE_FLAG) == 0;
}

static inline bool trace_debug_is_on()
{
    return evtrack_chk_int(DNSCACHE_TRACE_FLAG, 0, 0, 1) != 0;
}

/* The formats below were checked against their arguments where the macros were used. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* A template, so that the debug print can be given the format and the arguments as they were written. */
template <typename... Args>
[[gnu::noinline]] void trace_to_sinks(const char *function, int line, const char *format, Args... args)
{
    trace_text text;
    if (trace_history_is_on())
        trace_to_history(&text, format, args...);
    if (trace_debug_is_on())
        dbgemit(1, &evtrack_dbg_modname, 0, format, args...);
    if (trace_log_is_ready())
        trace_to_log_file(&text, function, line, format, args...);
    if (text.is_whole())
        fwrite(text.record.text, 1, static_cast<size_t>(text.length), stdout);
    else
        printf(format, args...);
}

#pragma GCC diagnostic pop

/* As printf() gets them anyway. Fewer types make fewer copies of the function above. */
static inline int as_passed(int value)
{
    return value;
}
static inline int as_passed(unsigned value)
{
    return static_cast<int>(value);
}
static inline long as_passed(long value)
{
    return value;
}
static inline long as_passed(unsigned long value)
{
    return static_cast<long>(value);
}
static inline const char *as_passed(const char *value)
{
    return value;
}
static inline const void *as_passed(const void *value)
{
    return value;
}

template <typename... Args>
void dnscache_trace(const char *function, int line, const char *format, Args... args)
{
    trace_to_sinks(function, line, format, as_passed(args)...);
}

/* The function's entry and exit: H and B. */
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
