/* other_platform.c: a platform layer for which every name is 192.0.2.1. Its jobs run in the process itself. */
#include <string.h>

#include "dnscache/dnscache.h"
#include "platform/spawnlet.h"

static server_spawnlet_data_t handed_back;

int spawnlet_done(const void *buffer, uint32_t size)
{
    memcpy(&handed_back, buffer, size);
    return 0;
}

const char *errcode2str(uint32_t code)
{
    return code == 0 ? "done" : "failed";
}

uint32_t spawnlet_register_async_q(uint32_t queue)
{
    return queue;
}

uint32_t spawnlet_fork_fp(spawnlet_body_t body, void *arg, void **ret_info, uint32_t *ret_info_size,
                          int32_t *ret_syserr, const job_options *options, FILE *in, FILE *out, FILE *err)
{
    (void)options, (void)in, (void)out, (void)err;
    server_addr_info request = *(const server_addr_info *)arg;
    strcpy(request.serv_name, "192.0.2.1");
    *ret_syserr = body(&request);
    *ret_info = &handed_back;
    *ret_info_size = sizeof handed_back;
    return 0;
}

uint32_t spawnlet_fork_fp_async(spawnlet_body_t body, void *arg, int one, const job_options *options,
                                FILE *in, FILE *out, FILE *err, uint32_t *handle)
{
    (void)body, (void)arg, (void)one, (void)options, (void)in, (void)out, (void)err, (void)handle;
    return 1;
}

/* The other services, whatever their arguments. */
#define SERVICE(name, result)                                                                                \
    int name(void)                                                                                           \
    {                                                                                                        \
        return result;                                                                                       \
    }
SERVICE(dbgemit, 0)
SERVICE(evtrack_chk_int, 0)
SERVICE(evtrack_hist_event, 0)
SERVICE(evtrack_hist_event_subtype_check, 1)
SERVICE(linux_queue_create, 0)
SERVICE(nsbind_set_global_context, 0)
SERVICE(platmgr_partition_get, 0)
SERVICE(rtctx_api_close, 0)
SERVICE(rtctx_api_init, 1)
char evtrack_dbg_modname[32];
