/*
 * replay.cpp: main() for builds without the fuzzer. It runs the target once with each file that is named or lies in a
 * named folder.
 */
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace fs = std::filesystem;

static int replay(const fs::path &path)
{
    int inputs = 0;
    if (fs::is_directory(path)) {
        for (const fs::path &file : fs::directory_iterator(path))
            inputs += replay(file);
        return inputs;
    }
    fprintf(stderr, "%s\n", path.filename().c_str());
    std::ifstream in(path, std::ios::binary);
    REQUIRE(in.is_open());
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    /* A block of exactly this size, so that sanitizers detect a read past its end. */
    const std::vector<uint8_t> block(bytes);
    LLVMFuzzerTestOneInput(block.data(), block.size());
    return 1;
}

int main(int argc, char **argv)
{
    int inputs = 0;
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; i++)
        inputs += replay(argv[i]);
    fprintf(stderr, "%d inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
