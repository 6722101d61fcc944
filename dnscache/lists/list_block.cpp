/*
 * list_block.cpp: detects memory shortage while the caller can still return an error.
 */
#include "dnscache/lists/list_block.h"

#include <glib.h>
#include <stdlib.h>

/* Many times what GLib allocates at once for links: get_res_back() may allocate a chain before the link. */
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
