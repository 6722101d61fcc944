/*
 * vrf_check.cpp: whether a job can be bound to a VRF. A process cannot leave a VRF again, so a child tries.
 */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"
#include "platform/spawnlet.h"

static constexpr int32_t TRIAL_SECONDS = 10;

/* Runs in the child. After a failure it sends the reason and exits without using the network: it is partly bound. */
static int try_to_bind(void *vrf)
{
    const int error = vrf_bind(*static_cast<const int32_t *>(vrf));
    if (error != 0)
        spawnlet_done(vrf_problem(), static_cast<uint32_t>(strlen(vrf_problem())));
    return error;
}

/* Returns true if the child could be bound. Else *problem is the reason: length bytes, not always terminated. */
static bool try_in_child(int32_t vrf, const char **problem, uint32_t *length)
{
    job_options options = {};
    options.record_size = sizeof options;
    options.timeout_secs = TRIAL_SECONDS;
    options.option_flag = 1;
    void *record = nullptr;
    int32_t error = 0;
    uint32_t code =
        spawnlet_fork_fp(try_to_bind, &vrf, &record, length, &error, &options, nullptr, nullptr, nullptr);
    if (code == LINUX_JOB_OK && error == 0)
        return true;
    if (code == LINUX_JOB_OK && record == nullptr)
        code = LINUX_JOB_NO_RESULT; /* the child could not send the reason */
    const bool has_reason = code == LINUX_JOB_OK;
    *problem = has_reason ? static_cast<const char *>(record) : errcode2str(code);
    if (!has_reason)
        *length = static_cast<uint32_t>(strlen(*problem));
    return false;
}

int linux_vrf_check(int32_t vrf, char *reason, size_t size)
{
    const int error = errno; /* this call leaves errno unchanged */
    const char *problem = "";
    uint32_t length = 0;
    const bool is_bound = try_in_child(vrf, &problem, &length);
    if (reason != nullptr && size > 0)
        snprintf(reason, size, "%.*s", static_cast<int>(length), problem);
    errno = error;
    return is_bound ? 0 : -1;
}
