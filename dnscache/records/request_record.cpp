/*
 * request_record.cpp: request records, which say what to resolve.
 */
#include "dnscache/records/request_record.h"

#include <stdlib.h>
#include <string.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/lists/list_block.h"
#include "dnscache/record_layout.h"

int server_addr_init(const char *serv_name, const char *service, const struct addrinfo *hints, int vrf,
                     server_addr_info *record)
{
    if (serv_name == nullptr || record == nullptr || service == nullptr)
        return -1;
    *record = {};
    copy_text(record->serv_name, serv_name);
    record->vrf = vrf;
    copy_text(record->service, service);
    if (hints != nullptr)
        record->hints = image_of_hints(*hints);
    return 0;
}

server_addr_info *new_request_record(const char *traced_as, const char *host, const char *service,
                                     const struct addrinfo *hints, int vrf)
{
    auto *record = static_cast<server_addr_info *>(new_list_block(sizeof(server_addr_info)));
    if (record == nullptr) {
        TRACE_AS(traced_as, "Malloc Failed \n");
        return nullptr;
    }
    if (server_addr_init(host, service, hints, vrf, record) != 0) {
        free(record);
        return nullptr;
    }
    return record;
}
