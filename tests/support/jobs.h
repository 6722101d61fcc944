/*
 * jobs.h: for tests that fork real jobs.
 */
#ifndef TESTS_SUPPORT_JOBS_H
#define TESTS_SUPPORT_JOBS_H

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

static inline job_options options_for(int32_t timeout_secs)
{
    job_options options = {};
    options.record_size = sizeof options;
    options.timeout_secs = timeout_secs;
    options.option_flag = 1;
    return options;
}

/* What a job came to. */
struct job_report {
    uint32_t code;
    int32_t result = 0;
    std::string buffer;
};

static inline job_report run_job(spawnlet_body_t body, void *arg = nullptr, int32_t timeout_secs = 20,
                                 FILE *in = nullptr, FILE *out = nullptr, FILE *err = nullptr)
{
    void *buffer = nullptr;
    uint32_t size = 0;
    int32_t result = 0;
    const job_options options = options_for(timeout_secs);
    const uint32_t code = spawnlet_fork_fp(body, arg, &buffer, &size, &result, &options, in, out, err);
    return {code, result, std::string(static_cast<char *>(buffer), buffer != nullptr ? size : 0)};
}

static inline uint32_t start_job(spawnlet_body_t body, void *arg = nullptr, int32_t timeout_secs = 20)
{
    uint32_t handle = 0;
    const job_options options = options_for(timeout_secs);
    EXPECT_EQ(spawnlet_fork_fp_async(body, arg, 1, &options, nullptr, stdout, stderr, &handle), 0u);
    EXPECT_NE(handle, 0u);
    return handle;
}

static inline bool becomes_readable(uint32_t queue, int timeout_ms = 20000)
{
    struct pollfd one = {.fd = static_cast<int>(queue), .events = POLLIN, .revents = 0};
    return poll(&one, 1, timeout_ms) == 1;
}

static inline linux_completion next_completion(uint32_t queue)
{
    linux_completion done = {};
    int taken = 0;
    while (taken == 0 && becomes_readable(queue))
        taken = linux_queue_next(queue, &done);
    EXPECT_EQ(taken, 1);
    return done;
}

static inline std::vector<int> open_descriptors()
{
    std::vector<int> found;
    DIR *directory = opendir("/proc/self/fd");
    while (const struct dirent *entry = readdir(directory))
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(directory))
            found.push_back(atoi(entry->d_name));
    closedir(directory);
    return found;
}

/* In a job's child its channel is the only socket. */
static inline int job_channel()
{
    for (const int fd : open_descriptors()) {
        struct stat status;
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
            return fd;
    }
    return -1;
}

/* Memory that a job's child shares with the test. */
template <typename T>
T *shared()
{
    void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (memory) T();
}

/* Waits for an event that has no descriptor. */
static inline bool eventually(const std::function<bool()> &event)
{
    for (int ms = 0; ms < 20000; ms++) {
        if (event())
            return true;
        poll(nullptr, 0, 1);
    }
    return false;
}

#endif
