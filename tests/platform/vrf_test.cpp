#include <sys/resource.h>

#include <filesystem>

#include "platform/linux/vrf_binding.h"
#include "platform/nsbind.h"
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
    alone([&] {
        std::string too_long = top;
        for (int i = 0; i < 9; i++)
            too_long += "/" + std::string(250, '\n'); /* the kernel writes each as four characters */
        std::vector<std::pair<const char *, const char *>> mappings; /* and their texts afterwards */
        for (int i = 0; i < 200; i++) {
            const std::string folder = top + "/" + std::string(static_cast<size_t>(i), 'f');
            mappings.emplace_back(map_file(folder + "/nscd", MAP_SHARED), "");
            mappings.emplace_back(map_file(folder + "/nscd", MAP_PRIVATE), "answers");
            mappings.emplace_back(map_file(folder + "/sdcn", MAP_SHARED), "answers");
        }
        /* The last mapping is listed first. */
        mappings.emplace_back(map_file(too_long, MAP_SHARED), "answers");
        EXPECT_EQ(vrf_forget_nscd(), 0);
        for (const auto &[mapping, text] : mappings)
            EXPECT_STREQ(mapping, text);
        /* If tables may remain, binding fails, and so does leaving every network after that. */
        const struct rlimit none = {0, 0};
        map_file(top + "/nscd", MAP_SHARED);
        setrlimit(RLIMIT_AS, &none);
        EXPECT_EQ(vrf_forget_nscd(), ENOMEM);
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(vrf_forget_nscd(), EMFILE);
        if (fork() == 0)
            _exit(nsbind_set_global_context(-1) != 0 ? 0 : 1);
        int status = 0;
        EXPECT_TRUE(wait(&status) > 0 && status != 0);
    });
    std::filesystem::remove_all(top);
}
