#include "fuzz/platform.h"

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "dnscache/state.h"
#include "fuzz/input.h"
#include "platform/evtrack.h"
#include "platform/nsbind.h"
#include "platform/platmgr.h"
#include "platform/rtctx.h"
#include "platform/spawnlet.h"

scripted_platform platform;
evtrack_modname evtrack_dbg_modname;

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
    platform.connected = true;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    REQUIRE(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

/* Services */

int evtrack_hist_event_subtype_check(uint32_t, uint32_t)
{
    return 0;
}

int evtrack_hist_event(uint32_t, uint32_t length, const void *record)
{
    REQUIRE(length > 4 && length <= 516);
    REQUIRE(strnlen(static_cast<const char *>(record) + 4, length - 4) == length - 5);
    return 0;
}

int evtrack_chk_int(int, int, int, int)
{
    return 0;
}

int dbgemit(int, const void *, int, const char *, ...)
{
    return 0;
}

uint32_t platmgr_partition_get(void)
{
    return 0;
}

int nsbind_set_global_context(int32_t)
{
    return -1;
}

int rtctx_api_init(void)
{
    platform.connected = true;
    return 1;
}

void rtctx_api_close(void)
{
    platform.connected = false;
}

uint32_t spawnlet_register_async_q(uint32_t)
{
    return 0;
}

int spawnlet_done(const void *, uint32_t)
{
    return 0;
}

const char *errcode2str(uint32_t)
{
    return "";
}

static void note_job(spawnlet_body_t body, const void *request, const job_options *options)
{
    REQUIRE(body == reinterpret_cast<spawnlet_body_t>(resolve_server_hostname));
    REQUIRE(options->record_size == sizeof *options && options->option_flag == 1);
    REQUIRE(!platform.connected);
    platform.seconds = options->timeout_secs;
    memcpy(&platform.request, request, sizeof platform.request);
}

uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *, FILE *, FILE *)
{
    platform.waits++;
    note_job(body, arg, options);
    *ret_info = platform.blocking.ret_info;
    *ret_info_size = platform.blocking.ret_info_size;
    *ret_syserr = platform.blocking.ret_syserr;
    return platform.blocking.syserr;
}

uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int, const job_options *options, FILE *,
                                FILE *, FILE *, uint32_t *handle)
{
    note_job(body, arg, options);
    if ((platform.refused >> platform.starts++ % 32 & 1) != 0)
        return 0x503;
    *handle = 1 + platform.handles++ % HANDLES;
    return 0;
}

/* C library */

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

/* No marker file: nothing is written to a debug log. */
int __wrap_stat(const char *path, struct stat *status)
{
    return strcmp(path, "/bootflash/.enable_dns_debugs") == 0 ? -1 : __real_stat(path, status);
}
}
