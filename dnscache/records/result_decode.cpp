/*
 * result_decode.cpp: decodes a record into an addrinfo chain.
 *
 * Each node and its socket address share one heap block, and freeaddrinfo() frees nodes and canonical names one by one.
 * So a chain stays valid when its record is freed.
 */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "dnscache/diagnostics/trace.h"
#include "dnscache/dnscache.h"
#include "dnscache/errno_guard.h"
#include "dnscache/record_layout.h"

static constexpr char traced_as[] = "get_res_back";

struct node_block {
    struct addrinfo node; /* first member: freeaddrinfo() frees the block through its address */
    alignas(8) uint8_t address[sizeof server_spawnlet_data_t::addr6[0]];
};

static struct addrinfo *new_node(const server_spawnlet_data_t &record, int i)
{
    auto *block = static_cast<node_block *>(malloc(sizeof(node_block)));
    if (block == nullptr) {
        TRACE_AS(traced_as, "Malloc Failed\n");
        return nullptr;
    }
    *block = {};
    block->node = addrinfo_of_image(record.ai_hdr[i]);
    if (block->node.ai_family == AF_INET6)
        TRACE_AS(traced_as, "IPV6 Address here \n");

    size_t size;
    const uint8_t *address = entry_address(record, i, &size);
    memcpy(block->address, address, size);
    block->node.ai_addr = reinterpret_cast<struct sockaddr *>(block->address);
    /* The length comes from another process: it must not lead a reader past the block. */
    if (block->node.ai_addrlen > size)
        block->node.ai_addrlen = static_cast<socklen_t>(size);
    return &block->node;
}

/* Returns false when out of memory. The slot need not be terminated. */
static bool copy_canonical_name(struct addrinfo *node, const char (&slot)[65])
{
    int canonname_len = static_cast<int>(strnlen(slot, sizeof slot));
    if (canonname_len == 0)
        return true;
    const int allowed = static_cast<int>(sizeof slot) - 1;
    if (canonname_len > allowed) {
        TRACE_AS(traced_as, "invalid canonname_len(%d) allowed(%d) \n", canonname_len, allowed);
        canonname_len = allowed;
    }
    const auto bytes = static_cast<size_t>(canonname_len);
    node->ai_canonname = static_cast<char *>(malloc(bytes + 1));
    if (node->ai_canonname == nullptr) {
        TRACE_AS(traced_as, "Malloc Failed \n");
        return false;
    }
    memcpy(node->ai_canonname, slot, bytes);
    node->ai_canonname[bytes] = '\0';
    return true;
}

int get_list_length(struct addrinfo *ai)
{
    int length = 0;
    for (; ai != nullptr; ai = ai->ai_next)
        length++;
    return length;
}

int get_res_back(server_spawnlet_data_t *record, struct addrinfo **res)
{
    const errno_guard kept;
    TRACE_ENTER();
    *res = nullptr;
    if (record == nullptr) {
        TRACE("ptr == NULL\n");
        return -1;
    }
    int count = record->num_entries;
    if (count == 0) {
        TRACE("No entries in server_spawnlet_data_t structure\n");
        return -1;
    }
    if (count > RECORD_ENTRIES_MAX) {
        TRACE_HERE("%s(%d) more dns entries/host(%d) received than Supported(%d)\n", count,
                   RECORD_ENTRIES_MAX);
        count = RECORD_ENTRIES_MAX;
    }
    TRACE("No of entries in server_spawnlet_data_t : %d \n", count);

    struct addrinfo **tail = res;
    for (int i = 0; i < count; i++) {
        *tail = new_node(*record, i);
        if (*tail == nullptr)
            return -1;
        if (!copy_canonical_name(*tail, record->canonname[i]))
            return -1;
        tail = &(*tail)->ai_next;
    }
    TRACE_EXIT();
    return 0;
}
