/*
 * monotonic_clock.cpp: the only clock of the job service.
 */
#include "platform/linux/monotonic_clock.h"

#include <time.h>

static constexpr int64_t ns_per_ms = 1'000'000;

int64_t monotonic_ns()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

int ms_until(int64_t deadline_ns)
{
    const int64_t left_ms = (deadline_ns - monotonic_ns() + ns_per_ms - 1) / ns_per_ms;
    return left_ms > 0 ? static_cast<int>(left_ms) : 0;
}
