#include <fcntl.h>

#include <filesystem>

#include "platform/linux/vrf_binding.h"
#include "tests/support/jobs.h"

static const char *map_file(const std::string &folder, int sharing)
{
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/hosts") << "answers";
    const int fd = open((folder + "/hosts").c_str(), O_RDONLY);
    const void *mapped = mmap(nullptr, 4096, PROT_READ, sharing, fd, 0);
    close(fd);
    return mapped != MAP_FAILED ? static_cast<const char *>(mapped) : nullptr;
}

/* The list of mappings takes many reads, which split lines, and has one line longer than the buffer. */
TEST(VrfNscd, ForgetsOnlySharedTables)
{
    std::string top = std::filesystem::temp_directory_path() / "dnscache-test-XXXXXX";
    ASSERT_NE(mkdtemp(top.data()), nullptr);
    EXPECT_TRUE(in_its_own_process([&] {
        std::string too_long = top;
        for (int i = 0; i < 9; i++)
            too_long += "/" + std::string(250, '\n'); /* the kernel writes each as four characters */
        std::vector<const char *> tables, others;
        for (int i = 0; i < 200; i++) {
            const std::string folder = top + "/" + std::string(static_cast<size_t>(i), 'f');
            tables.push_back(map_file(folder + "/nscd", MAP_SHARED));
            others.push_back(map_file(folder + "/nscd", MAP_PRIVATE));
            others.push_back(map_file(folder + "/sdcn", MAP_SHARED));
        }
        others.push_back(map_file(too_long, MAP_SHARED)); /* the last mapping is listed first */
        if (vrf_forget_nscd() != 0)
            return false;
        for (const char *table : tables)
            if (table == nullptr || table[0] != '\0')
                return false;
        for (const char *other : others)
            if (other == nullptr || strcmp(other, "answers") != 0)
                return false;
        return true;
    }));
    std::filesystem::remove_all(top);
}
