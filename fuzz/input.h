/*
 * input.h: reads the bytes of a test case one by one. REQUIRE aborts the program if its condition is false.
 */
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

/* Reports go to standard error, because trace messages go to standard output. */
#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fprintf(stderr, "%s:%d: not met: %s\n", __FILE__, __LINE__, #condition);                         \
            abort();                                                                                         \
        }                                                                                                    \
    } while (false)

struct input {
    const uint8_t *at, *end;
    uint64_t generator; /* not 0: its random bytes follow the input; 0: zeros follow */

    bool is_empty() const
    {
        return at == end && generator == 0;
    }

    uint8_t byte()
    {
        if (at != end)
            return *at++;
        generator ^= generator << 13;
        generator ^= generator >> 7;
        generator ^= generator << 17;
        return static_cast<uint8_t>(generator >> 24);
    }

    bool one_in(unsigned count)
    {
        return byte() % count == 0;
    }

    template <typename T, size_t count>
    const T &one_of(const T (&choices)[count])
    {
        return choices[byte() % count];
    }

    void fill(void *block, size_t size)
    {
        for (size_t i = 0; i < size; i++)
            static_cast<uint8_t *>(block)[i] = byte();
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

#endif
