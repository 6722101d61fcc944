/*
 * errno_guard.h: exported calls leave errno unchanged. A daemon that looks up a name between a failed call of its own
 * and the message about it still finds its own error there. Errors of the library are in the result and the trace.
 */
#ifndef DNSCACHE_ERRNO_GUARD_H
#define DNSCACHE_ERRNO_GUARD_H

#include <errno.h>

struct errno_guard {
    const int error = errno;

    errno_guard() = default;
    ~errno_guard()
    {
        errno = error;
    }
    errno_guard(const errno_guard &) = delete;
    errno_guard &operator=(const errno_guard &) = delete;
};

#endif
