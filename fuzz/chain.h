/*
 * chain.h: compares a chain with the record that it was decoded from, over every byte that a caller may read.
 */
#ifndef FUZZ_CHAIN_H
#define FUZZ_CHAIN_H

#include <string.h>

#include "dnscache/dnscache.h"

inline bool is_node_of(const struct addrinfo &node, const server_spawnlet_data_t &record, int i)
{
    const dnscache_addrinfo_image &header = record.ai_hdr[i];
    const bool ipv6 = header.ai_family == AF_INET6;
    const uint32_t slot = ipv6 ? 32 : 16;
    const size_t length = strnlen(record.canonname[i], 64);
    return node.ai_flags == header.ai_flags && node.ai_family == header.ai_family &&
           node.ai_socktype == header.ai_socktype && node.ai_protocol == header.ai_protocol &&
           node.ai_addrlen == (header.ai_addrlen < slot ? header.ai_addrlen : slot) &&
           memcmp(node.ai_addr, ipv6 ? record.addr6[i] : record.addr[i], slot) == 0 &&
           (length == 0 ? node.ai_canonname == nullptr
                        : node.ai_canonname != nullptr && strlen(node.ai_canonname) == length &&
                              memcmp(node.ai_canonname, record.canonname[i], length) == 0);
}

/* The number of nodes; -1 if one of them is not the record's entry at its position. */
inline int matching_length(const struct addrinfo *chain, const server_spawnlet_data_t &record)
{
    int count = 0;
    for (; chain != nullptr; chain = chain->ai_next)
        if (count == 4 || count == record.num_entries || !is_node_of(*chain, record, count++))
            return -1;
    return count;
}

#endif
