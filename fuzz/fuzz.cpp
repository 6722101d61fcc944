/*
 * fuzz.cpp: the entry points of the fuzzer. Builds without it replay all files of a folder.
 */
#include "fuzz/fuzz.h"

#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <vector>

int failing_malloc;

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
        LLVMFuzzerTestOneInput(reinterpret_cast<uint8_t *>(bytes.data()), bytes.size());
    }
}
#endif
