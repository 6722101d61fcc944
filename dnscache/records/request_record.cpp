/*
 * request_record.cpp: what to resolve, as a record and as a cache key.
 */
#include "dnscache/records/request_record.h"

#include <stdlib.h>
#include <string.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/record_layout.h"
#include "dnscache/records/list_block.h"

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

server_addr_info *new_request_record(const char *owner, const char *host, const char *service,
                                     const struct addrinfo *hints, int vrf)
{
    auto *record = static_cast<server_addr_info *>(new_list_block(sizeof(server_addr_info)));
    if (record == nullptr) {
        TRACE_AS(owner, "Malloc Failed \n");
        return nullptr;
    }
    if (server_addr_init(host, service, hints, vrf, record) != 0) {
        free(record);
        return nullptr;
    }
    return record;
}

const char *create_hostcache_id(const char *host, int port, long vrf, char *out)
{
    static char key[100];
    const int length = snprintf(key, CACHE_KEY_BYTES, "%s:%d:%ld", text_or_null(host), port, vrf);
    if (length < 0)
        key[0] = '\0';
    TRACE("cache id = %s\n", key);
    if (out != nullptr) {
        memset(out, 0, CACHE_KEY_BYTES);
        memcpy(out, key, strlen(key) + 1);
    }
    return key;
}

int port_of_service(const char *service)
{
    return static_cast<int>(strtol(service, nullptr, 10));
}
