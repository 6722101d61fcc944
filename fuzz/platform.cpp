#include "fuzz/platform.h"

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "dnscache/state.h"
#include "fuzz/input.h"

scripted_platform platform;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    REQUIRE(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

/* Hooks of the memory platform */

static int check_history(uint32_t, uint32_t length, const void *record)
{
    REQUIRE(length > 4 && length <= 516);
    REQUIRE(strnlen(static_cast<const char *>(record) + 4, length - 4) == length - 5);
    return 0;
}

/* A blocking job ends as the target has set. The target delivers the completions of background jobs. */
static uint32_t start_job(memory_job *job)
{
    REQUIRE(job->body == reinterpret_cast<spawnlet_body_t>(resolve_server_hostname));
    REQUIRE(job->options->record_size == sizeof *job->options && job->options->option_flag == 1);
    REQUIRE(!memory.connected);
    platform.seconds = job->options->timeout_secs;
    memcpy(&platform.request, job->arg, sizeof platform.request);
    if (job->in_background) {
        if ((platform.refused >> platform.starts++ % 32 & 1) != 0)
            return 0x503;
        memory.next_handle = 1 + platform.handles++ % HANDLES;
    } else {
        platform.waits++;
        job->outcome = &platform.blocking;
    }
    return 0;
}

void reset_world()
{
    destroy_dns_cache(local_cache);
    destroy_dns_cache(job_list);
    local_cache = job_list = nullptr;
    running_jobs = cache_initialised = 0;
    blocking_timeout = 3;
    cache_timeout = 60;
    async_queue = 0;
    platform = {};
    memory_reset();
    memory.connected = memory.jobs_never_end = 1;
    memory.history_class = 0x730000;
    memory.history_subtype = 101;
    memory.on_start = start_job;
    memory.on_history = check_history;
}

/* Fakes of the C library */

extern "C" {
void *__real_malloc(size_t size);
int __real_stat(const char *path, struct stat *status);

void *__wrap_malloc(size_t size)
{
    if (platform.failing_malloc > 0 && --platform.failing_malloc == 0)
        return nullptr;
    return __real_malloc(size);
}

time_t __wrap_time(time_t *)
{
    return static_cast<time_t>(platform.now);
}

/* There is no marker file, so no debug log is written. */
int __wrap_stat(const char *path, struct stat *status)
{
    return strcmp(path, "/bootflash/.enable_dns_debugs") == 0 ? -1 : __real_stat(path, status);
}
}
