/*
 * list_block.cpp: out of memory is found out about here, where it is a code.
 */
#include "dnscache/records/list_block.h"

#include <glib.h>
#include <stdlib.h>

/* What GLib takes at once for its links, many times over: an answer's chain is taken too before the link is. */
static constexpr size_t LINK_RESERVE = 8192;

static bool has_room_for_link()
{
    void *room = g_try_malloc(LINK_RESERVE);
    g_free(room);
    return room != nullptr;
}

void *new_list_block(size_t size)
{
    void *block = malloc(size);
    if (block == nullptr || has_room_for_link())
        return block;
    free(block);
    return nullptr;
}
