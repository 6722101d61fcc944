/*
 * dumps.cpp: writes records, chains and socket addresses as trace messages.
 */
#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/record_layout.h"

/* Uses memcpy(), because socket addresses lie in byte arrays and may be misaligned. */
static uint16_t family_of(const struct sockaddr *sa)
{
    uint16_t family;
    static_assert(sizeof family == sizeof sa->sa_family);
    memcpy(&family, sa, sizeof family);
    return family;
}

const void *get_sock_in_addr(const struct sockaddr *sa)
{
    const errno_guard kept;
    if (sa == nullptr) {
        TRACE_HERE("%s(%d) sa is NULL\n");
        return nullptr;
    }
    const char *bytes = reinterpret_cast<const char *>(sa);
    switch (const uint16_t family = family_of(sa)) {
    case AF_INET:
        return bytes + 4;
    case AF_INET6:
        return bytes + 8;
    default:
        TRACE_HERE("%s(%d) invalid sa_family(%d)\n", family);
        return nullptr;
    }
}

void display_sockaddr(const struct sockaddr *sa)
{
    const errno_guard kept;
    TRACE_ENTER();
    signed char data[14];
    memcpy(data, reinterpret_cast<const char *>(sa) + sizeof(uint16_t), sizeof data);
    for (int i = 0; i < 14; i++)
        TRACE("ip addr->sa_data [%d]: %d : %c\n", i, int{data[i]}, int{data[i]});
    TRACE("ip addr->sa_family:  %d \n", int{family_of(sa)});
    TRACE_EXIT();
}

void display_ip_addrs(const struct addrinfo *ai)
{
    const errno_guard kept;
    TRACE_ENTER();
    for (; ai != nullptr; ai = ai->ai_next) {
        TRACE("ai_socktype : %d \n", ai->ai_socktype);
        TRACE("ai_protocol : %d \n", ai->ai_protocol);
        TRACE("ai_family   : %d \n", ai->ai_family);
        TRACE("ai_flags    : %d \n", ai->ai_flags);
        TRACE("ip addr_len : %d \n", static_cast<int>(ai->ai_addrlen));
    }
    TRACE_EXIT();
}

[[gnu::cold]] void server_spawnlet_data_display(const server_spawnlet_data_t *record)
{
    const errno_guard kept;
    TRACE_ENTER();
    TRACE("number of entries : %d\n", record->num_entries);
    TRACE("serv_name : %s\n", record->serv_name);
    TRACE("service : %s\n", record->service);
    TRACE("vrf : %d\n", record->vrf);
    TRACE("status : %d\n", record->status);

    for (int i = 0; i < record->num_entries && i < RECORD_ENTRIES_MAX; i++) {
        const struct addrinfo header = addrinfo_of_image(record->ai_hdr[i]);
        display_ip_addrs(&header);

        size_t size;
        const uint8_t *sa = entry_address(*record, i, &size);
        const void *address = get_sock_in_addr(reinterpret_cast<const struct sockaddr *>(sa));
        if (address == nullptr)
            continue;
        char host_ip[256] = "";
        inet_ntop(header.ai_family, address, host_ip, sizeof host_ip);
        TRACE("host ip =%s\n", host_ip);
    }
    TRACE_EXIT();
}
