/*
 * monotonic_clock.h: the only clock of the job service. Setting the system time does not change it.
 */
#ifndef PLATFORM_LINUX_MONOTONIC_CLOCK_H
#define PLATFORM_LINUX_MONOTONIC_CLOCK_H

#include <stdint.h>

constexpr int64_t ns_per_second = 1'000'000'000;

/* monotonic_ns: the time now. */
int64_t monotonic_ns();

/*
 * ms_until: the milliseconds until a deadline; 0 if it has passed. Rounded up, so that the last poll before a deadline
 * does not end early and turn into a busy loop.
 */
int ms_until(int64_t deadline_ns);

#endif
