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

/* As much of the text as fits goes to *end, which moves on. */
static void append(char **end, const char *limit, const char *text, size_t length)
{
    const auto room = static_cast<size_t>(limit - *end);
    const size_t taken = length < room ? length : room;
    memcpy(*end, text, taken);
    *end += taken;
}

static void append_number(char **end, const char *limit, long number)
{
    char text[sizeof ":-9223372036854775808"];
    char *first = text + sizeof text;
    unsigned long rest =
        number < 0 ? -static_cast<unsigned long>(number) : static_cast<unsigned long>(number);
    do
        *--first = static_cast<char>('0' + rest % 10);
    while ((rest /= 10) != 0);
    if (number < 0)
        *--first = '-';
    *--first = ':';
    append(end, limit, first, static_cast<size_t>(text + sizeof text - first));
}

/* "%s:%d:%ld". Not by snprintf(): that was a third of what a hit costs beyond its trace and its blocks. */
const char *create_hostcache_id(const char *host, int port, long vrf, char *out)
{
    static char key[100];
    char *end = key;
    const char *limit = key + CACHE_KEY_BYTES - 1;
    host = text_or_null(host);
    append(&end, limit, host, strnlen(host, CACHE_KEY_BYTES));
    append_number(&end, limit, port);
    append_number(&end, limit, vrf);
    *end = '\0';
    TRACE("cache id = %s\n", key);
    if (out != nullptr) {
        memset(out, 0, CACHE_KEY_BYTES);
        memcpy(out, key, static_cast<size_t>(end - key));
    }
    return key;
}

int port_of_service(const char *service)
{
    return static_cast<int>(strtol(service, nullptr, 10));
}
