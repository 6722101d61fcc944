/*
 * jobs.h: helpers for tests that fork real jobs.
 */
#ifndef TESTS_SUPPORT_JOBS_H
#define TESTS_SUPPORT_JOBS_H

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/linux_platform.h"
#include "platform/linux/spawnlet_wire.h"
#include "platform/spawnlet.h"

static inline job_options options_for(int32_t timeout_secs)
{
    job_options options = {};
    options.record_size = sizeof options;
    options.timeout_secs = timeout_secs;
    options.option_flag = 1;
    return options;
}

static inline std::string content_of(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

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
    for (int fd = 0; fd < 2048; fd++)
        if (fcntl(fd, F_GETFD) >= 0)
            found.push_back(fd);
    return found;
}

/* In the child of a job, whose only socket is the channel to its parent. */
static inline void send_raw(const void *bytes, size_t size)
{
    for (const int fd : open_descriptors())
        send(fd, bytes, size, 0);
}

/* Memory that the child of a job shares with the test. */
template <typename T>
T *shared()
{
    void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (memory) T();
}

/* Bodies of jobs, and how such a job ends, whether blocking or in the background */

static inline int crash(void *)
{
    return raise(SIGKILL);
}

static inline int hang(void *)
{
    spawnlet_done("early", 5);
    return pause();
}

static inline int hand_back(void *size)
{
    const std::string bytes(*static_cast<size_t *>(size), 'b');
    spawnlet_done(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return -5;
}

/* Largest hand-backs: many small ones would need a change of process for each few hundred bytes. */
static inline int flood(void *size)
{
    for (;;)
        hand_back(size);
}

static inline int send_garbage(void *)
{
    send_raw("garbage-garbage", 16);
    return 0;
}

/* Sends half a hand-back, and leaves a grandchild that keeps the channel open beyond the deadline of most jobs. */
static inline int send_half_and_crash(void *)
{
    const frame_header header = {FRAME_HANDBACK, 2 * sizeof header};
    send_raw(&header, sizeof header);
    send_raw(&header, sizeof header);
    if (fork() == 0) {
        close(STDOUT_FILENO); /* ctest waits until its pipe is closed */
        close(STDERR_FILENO);
        alarm(30);
        pause();
    }
    return raise(SIGKILL);
}

struct job_way {
    spawnlet_body_t body;
    void *arg;
    uint32_t code;
    int32_t result;
    size_t size; /* of the hand-back that arrives */
};

static inline const std::vector<job_way> &job_ways()
{
    static size_t sizes[] = {0, 1676, LINUX_HANDBACK_MAX, LINUX_HANDBACK_MAX + 1};
    static const auto twice = [](void *) { return spawnlet_done("first", 5) + spawnlet_done("last", 4); };
    static const std::vector<job_way> ways = {
        {hand_back, &sizes[0], 0, -5, 0},
        {hand_back, &sizes[1], 0, -5, 1676},
        {hand_back, &sizes[2], 0, -5, LINUX_HANDBACK_MAX},
        {hand_back, &sizes[3], LINUX_JOB_TOO_LARGE, 0, 0},
        {twice, nullptr, 0, 0, 4},
        {flood, &sizes[2], LINUX_JOB_TOO_LARGE, 0, 0},
        {send_garbage, nullptr, LINUX_JOB_NO_RESULT, 0, 0},
        {crash, nullptr, LINUX_JOB_NO_RESULT, 0, 0},
        {send_half_and_crash, nullptr, LINUX_JOB_NO_RESULT, 0, 0},
        {[](void *) { return raise(SIGSTOP) + pause(); }, nullptr, LINUX_JOB_TIMED_OUT, 0, 0},
        {hang, nullptr, LINUX_JOB_TIMED_OUT, 0, 0},
    };
    return ways;
}

extern "C" int __attribute__((weak)) __lsan_do_recoverable_leak_check(void);

static inline bool has_sanitizer()
{
    return __lsan_do_recoverable_leak_check != nullptr;
}

/* Waits about 20 s at most for an event that has no descriptor to poll. */
static inline bool eventually(const std::function<bool()> &event)
{
    for (int ms = 0; ms < 20000; ms++) {
        if (event())
            return true;
        poll(nullptr, 0, 1);
    }
    return false;
}

static inline int nothing(void *)
{
    return 0;
}

/* Runs jobs, each of which reaps earlier ones, until no child is left to reap and at most one descriptor is new. */
static inline bool leaves_nothing_behind(size_t descriptors)
{
    return eventually([descriptors] {
        run_job(nothing);
        siginfo_t last = {};
        return open_descriptors().size() <= descriptors + 1 &&
               (waitid(P_ALL, 0, &last, WEXITED | WSTOPPED | WNOHANG | WNOWAIT) != 0 || last.si_pid == 0);
    });
}

/* Moves the process, which needs root, into a mount namespace of its own. */
static inline bool has_own_mounts()
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/* Runs a test in a forked process, because it changes its whole process or registers a queue. */
static inline void alone(const std::function<void()> &test)
{
    const pid_t process = fork();
    if (process == 0) {
        test();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
}

#endif
