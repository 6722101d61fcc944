/*
 * fuzz.h: what the targets share. Each target includes it once and defines run_input(), which runs for each input
 * of the fuzzer. Builds without it replay all files of a folder.
 */
#undef NDEBUG /* check in release builds, too */
#include <assert.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <span>
#include <vector>

#define REQUIRE(condition) assert(condition)

using bytes_view = std::span<const uint8_t>;

static void run_input(bytes_view input);

static int failing_malloc; /* N: the N-th malloc() from now fails; 0 or less: none */

extern "C" {
void *__real_malloc(size_t size);

void *__wrap_malloc(size_t size)
{
    return failing_malloc > 0 && --failing_malloc == 0 ? nullptr : __real_malloc(size);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run_input({data, size});
    return 0;
}
}

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

#ifndef DNSCACHE_FUZZ
int main(int, char **argv)
{
    REQUIRE(freopen("/dev/null", "w", stdout) != nullptr); /* the traces */
    REQUIRE(!std::filesystem::is_empty(argv[1]));
    for (const auto &file : std::filesystem::directory_iterator(argv[1])) {
        fprintf(stderr, "%s\n", file.path().filename().c_str());
        /* A block of exactly this size, so that sanitizers detect a read past its end. */
        std::vector<char> bytes(static_cast<size_t>(file.file_size()));
        REQUIRE(std::ifstream(file.path()).read(bytes.data(), static_cast<std::streamsize>(bytes.size())));
        run_input({reinterpret_cast<uint8_t *>(bytes.data()), bytes.size()});
    }
}
#endif
