/*
 * replay.cpp: what stands in for the fuzzer elsewhere: each file named, or each file of a folder, goes through
 * the target once.
 */
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace fs = std::filesystem;

static void replay(const fs::path &file)
{
    fprintf(stderr, "%s\n", file.filename().c_str());
    std::ifstream in(file, std::ios::binary);
    REQUIRE(in.is_open());
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    /* In a block of its own size, so that reading past it shows. */
    const std::vector<uint8_t> block(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(block.data(), block.size());
}

int main(int argc, char **argv)
{
    int inputs = 0;
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; i++) {
        if (!fs::is_directory(argv[i])) {
            replay(argv[i]);
            inputs++;
            continue;
        }
        for (const fs::directory_entry &file : fs::directory_iterator(argv[i])) {
            replay(file.path());
            inputs++;
        }
    }
    fprintf(stderr, "%d inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
