/*
 * record_layout.h: the byte layout of the public records, checked at compile time, and conversions from and to them.
 * It lies beside dnscache.h because diagnostics/, which is below records/, reads the records, too.
 *
 * 32-bit and 64-bit builds use the same layout, that of a 32-bit process.
 */
#ifndef DNSCACHE_RECORD_LAYOUT_H
#define DNSCACHE_RECORD_LAYOUT_H

#include <netdb.h>
#include <stddef.h>
#include <string.h>

#include "dnscache/dnscache.h"

constexpr int RECORD_ENTRIES_MAX = 4;

static_assert(sizeof(dnscache_addrinfo_image) == 32);
static_assert(offsetof(dnscache_addrinfo_image, ai_flags) == 0);
static_assert(offsetof(dnscache_addrinfo_image, ai_family) == 4);
static_assert(offsetof(dnscache_addrinfo_image, ai_socktype) == 8);
static_assert(offsetof(dnscache_addrinfo_image, ai_protocol) == 12);
static_assert(offsetof(dnscache_addrinfo_image, ai_addrlen) == 16);
static_assert(offsetof(dnscache_addrinfo_image, ai_addr) == 20);
static_assert(offsetof(dnscache_addrinfo_image, ai_canonname) == 24);
static_assert(offsetof(dnscache_addrinfo_image, ai_next) == 28);

static_assert(sizeof(server_addr_info) == 564);
static_assert(offsetof(server_addr_info, job_handle) == 0);
static_assert(offsetof(server_addr_info, serv_name) == 4);
static_assert(offsetof(server_addr_info, service) == 516);
static_assert(offsetof(server_addr_info, hints) == 528);
static_assert(offsetof(server_addr_info, vrf) == 560);

static_assert(sizeof(server_spawnlet_data_t) == 1676);
static_assert(offsetof(server_spawnlet_data_t, serv_id) == 0);
static_assert(offsetof(server_spawnlet_data_t, serv_name) == 524);
static_assert(offsetof(server_spawnlet_data_t, service) == 1036);
static_assert(offsetof(server_spawnlet_data_t, hints) == 1048);
static_assert(offsetof(server_spawnlet_data_t, ai_hdr) == 1080);
static_assert(offsetof(server_spawnlet_data_t, addr) == 1208);
static_assert(offsetof(server_spawnlet_data_t, vrf) == 1272);
static_assert(offsetof(server_spawnlet_data_t, addr6) == 1276);
static_assert(offsetof(server_spawnlet_data_t, canonname) == 1404);
static_assert(offsetof(server_spawnlet_data_t, num_entries) == 1664);
static_assert(offsetof(server_spawnlet_data_t, timestamp) == 1668);
static_assert(offsetof(server_spawnlet_data_t, status) == 1672);

/* Copies text into a field of zeros. Longer text is cut silently; the field stays terminated. */
template <size_t size>
void copy_text(char (&field)[size], const char *text)
{
    memcpy(field, text, strnlen(text, size - 1));
}

/* Copies the five integers; the pointer words become 0. */
static inline dnscache_addrinfo_image image_of_addrinfo(const struct addrinfo &ai)
{
    return {.ai_flags = ai.ai_flags,
            .ai_family = ai.ai_family,
            .ai_socktype = ai.ai_socktype,
            .ai_protocol = ai.ai_protocol,
            .ai_addrlen = ai.ai_addrlen,
            .ai_addr = 0,
            .ai_canonname = 0,
            .ai_next = 0};
}

static inline struct addrinfo addrinfo_of_image(const dnscache_addrinfo_image &image)
{
    struct addrinfo ai = {};
    ai.ai_flags = image.ai_flags;
    ai.ai_family = image.ai_family;
    ai.ai_socktype = image.ai_socktype;
    ai.ai_protocol = image.ai_protocol;
    ai.ai_addrlen = image.ai_addrlen;
    return ai;
}

/* Convert a caller's hints into a record and back. Where the sizes are equal, every byte is kept. */
static inline dnscache_addrinfo_image image_of_hints(const struct addrinfo &hints)
{
    dnscache_addrinfo_image image = image_of_addrinfo(hints);
    if constexpr (sizeof hints == sizeof image)
        memcpy(&image, &hints, sizeof image);
    return image;
}

static inline struct addrinfo hints_of_image(const dnscache_addrinfo_image &image)
{
    struct addrinfo hints = addrinfo_of_image(image);
    if constexpr (sizeof hints == sizeof image)
        memcpy(&hints, &image, sizeof hints);
    return hints;
}

/* The socket address of an entry; *size receives the size of its slot. */
static inline const uint8_t *entry_address(const server_spawnlet_data_t &record, int entry, size_t *size)
{
    const bool ipv6 = record.ai_hdr[entry].ai_family == AF_INET6;
    *size = ipv6 ? sizeof record.addr6[entry] : sizeof record.addr[entry];
    return ipv6 ? record.addr6[entry] : record.addr[entry];
}

#endif
