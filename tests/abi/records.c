/* The public headers as a C compiler sees them, and the layouts that cross process and word-size borders. */
#include <stddef.h>

#include "dnscache/dnscache.h"
#include "platform/evtrack.h"
#include "platform/linux/linux_platform.h"
#include "platform/memory/memory_platform.h"
#include "platform/nsbind.h"
#include "platform/platmgr.h"
#include "platform/rtctx.h"
#include "platform/spawnlet.h"

_Static_assert(sizeof(server_addr_info) == 564 && offsetof(server_addr_info, vrf) == 560, "request record");
_Static_assert(sizeof(server_spawnlet_data_t) == 1676 && offsetof(server_spawnlet_data_t, addr6) == 1276 &&
                   offsetof(server_spawnlet_data_t, status) == 1672,
               "result record");
_Static_assert(sizeof(job_options) == 44 && offsetof(job_options, timeout_secs) == 28 &&
                   offsetof(job_options, option_flag) == 40,
               "job options");
_Static_assert(ENTRY_EMPTY == 0 && ENTRY_INVALID == 1 && ENTRY_FAILED == 2 && ENTRY_RESOLVED == 3, "states");
_Static_assert(LINUX_JOB_OK == 0 && LINUX_JOB_TIMED_OUT == 0x501 && LINUX_JOB_NO_RESULT == 0x502 &&
                   LINUX_JOB_FORK_REFUSED == 0x503 && LINUX_JOB_NO_RESOURCES == 0x504 &&
                   LINUX_JOB_TOO_LARGE == 0x505 && LINUX_JOB_BAD_ARGUMENT == 0x506 && LINUX_VRF_HOST == 0 &&
                   LINUX_VRF_NAMESPACE == 1 && LINUX_VRF_DEVICE == 2 && LINUX_VRF_UNUSABLE == 3,
               "the Linux platform's numbers");
_Static_assert(MAX_CACHE_ENTRIES == 64 && MAX_SPAWNLETS == 10 && sizeof file_name == 255, "limits");
