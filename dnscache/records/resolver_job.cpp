/*
 * resolver_job.cpp: the body of a job, which runs in the child. It binds the process to the VRF, asks the system
 * resolver and packs the answer into one record, which has the same size for every result.
 */
#include <sys/socket.h>
#include <time.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/record_layout.h"
#include "dnscache/records/cache_key.h"
#include "platform/nsbind.h"
#include "platform/rtctx.h"
#include "platform/spawnlet.h"

static constexpr char traced_as[] = "resolve_server_hostname";

/* Expects an entry of zeros: copy_text() writes no padding. */
static void pack_request(server_spawnlet_data_t *entry, const server_addr_info *request)
{
    copy_text(entry->serv_name, request->serv_name);
    TRACE_AS(traced_as, "resolve_server_hostname : entry.serv_name %s\n", entry->serv_name);
    copy_text(entry->service, request->service);
    TRACE_AS(traced_as, "resolve_server_hostname : entry.service %s\n", entry->service);
    entry->hints = request->hints;
    copy_text(entry->serv_id, create_hostcache_id(request->serv_name, port_of_service(request->service),
                                                  request->vrf, nullptr));
    entry->vrf = request->vrf;
}

static void pack_canonical_name(char (&slot)[65], const char *name)
{
    const int length = static_cast<int>(strlen(name));
    const int allowed = static_cast<int>(sizeof slot) - 1;
    if (length > allowed)
        TRACE_AS(traced_as, "canonname_len : received(%d) morethan allowed(%d) \n", length, allowed);
    copy_text(slot, name);
}

static void pack_entry(server_spawnlet_data_t *entry, int i, const struct addrinfo *ai)
{
    constexpr socklen_t ipv6_slot_size = sizeof entry->addr6[0];

    entry->ai_hdr[i] = image_of_addrinfo(*ai);
    const socklen_t size = ai->ai_addr != nullptr ? ai->ai_addrlen : 0;
    if (ai->ai_family == AF_INET6) {
        TRACE_AS(traced_as, "IPV6 address : sizeof(sockaddr_in6_yolt) : %d \n",
                 static_cast<int>(ipv6_slot_size));
        if (size > 0)
            memcpy(entry->addr6[i], ai->ai_addr, size < ipv6_slot_size ? size : ipv6_slot_size);
    }
    if (size > 0)
        memcpy(entry->addr[i], ai->ai_addr, size < sizeof entry->addr[i] ? size : sizeof entry->addr[i]);
    if (ai->ai_canonname != nullptr && ai->ai_canonname[0] != '\0')
        pack_canonical_name(entry->canonname[i], ai->ai_canonname);
}

static void pack_answers(server_spawnlet_data_t *entry, struct addrinfo *answers)
{
    entry->num_entries = get_list_length(answers);
    if (entry->num_entries > RECORD_ENTRIES_MAX) {
        TRACE_HERE_AS(traced_as, "%s(%d) more dns entries/host(%d) received than Supported(%d)\n",
                      entry->num_entries, RECORD_ENTRIES_MAX);
        entry->num_entries = RECORD_ENTRIES_MAX;
    }
    int i = 0;
    for (const struct addrinfo *ai = answers; ai != nullptr && i < entry->num_entries; ai = ai->ai_next)
        pack_entry(entry, i++, ai);

    if (entry->num_entries > 0) {
        entry->status = ENTRY_RESOLVED;
        entry->timestamp = static_cast<int32_t>(time(nullptr));
        server_spawnlet_data_display(entry);
    }
}

/* cold: each child runs it once, so touching few pages matters more than speed. */
[[gnu::cold]] int resolve_server_hostname(server_addr_info *request)
{
    const errno_guard kept;
    TRACE_ENTER();
    TRACE("resolve_server_hostname : server_addr_info %p\n", static_cast<void *>(request));
    if (rtctx_api_init() == 0)
        TRACE_HERE("%s(%d): rtctx_api_init fail\n");

    server_spawnlet_data_t entry = {};
    TRACE("resolve_server_hostname : %s service : %s vrf : %d\n", request->serv_name, request->service,
          request->vrf);
    /* The result is ignored: when binding fails, the process is left without a network, and getaddrinfo() fails. */
    nsbind_set_global_context(request->vrf);

    /* No hints: the cached answer must serve every caller, with any family or socket type. */
    struct addrinfo *answers = nullptr;
    const int result = getaddrinfo(request->serv_name, request->service, nullptr, &answers);
    if (result > 0) {
        rtctx_api_close();
        TRACE("***** Impossilbe: resolve_server_hostname  SUCCESSS :****** \n");
        return 0;
    }
    if (result < 0) {
        entry.status = ENTRY_FAILED;
        TRACE(" resolve_server_hostname failure : %s \n", gai_strerror(result));
    } else {
        pack_request(&entry, request);
        pack_answers(&entry, answers);
        if (answers != nullptr)
            freeaddrinfo(answers);
        TRACE("***** getaddrinfo : SUCCESSS :%d ****** \n", static_cast<int>(sizeof entry));
    }
    spawnlet_done(&entry, sizeof entry);
    rtctx_api_close();
    TRACE_EXIT();
    return result;
}
