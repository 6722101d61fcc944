/*
 * fuzz.h: what the targets share. Each target defines run_input(), which the fuzzer or main() calls for each input.
 */
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#undef NDEBUG /* check in release builds, too */
#include <assert.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <span>

#define REQUIRE(condition) assert(condition)

using bytes_view = std::span<const uint8_t>;

void run_input(bytes_view input);

extern int failing_malloc; /* N: the N-th malloc() from now fails; 0 or less: none */

/* Takes a value from the front of the input; zeros follow the input. */
template <typename T>
T take(bytes_view *input)
{
    T value = {};
    const bytes_view bytes = input->first(std::min(sizeof value, input->size()));
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t *>(&value));
    *input = input->subspan(bytes.size());
    return value;
}

#endif
