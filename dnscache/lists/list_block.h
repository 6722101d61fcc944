/*
 * list_block.h: memory blocks that a list will own.
 */
#ifndef DNSCACHE_LISTS_LIST_BLOCK_H
#define DNSCACHE_LISTS_LIST_BLOCK_H

#include <stddef.h>

/*
 * new_list_block: malloc() a block that a list will own.
 *
 * Returns NULL if there is no memory for the block, or none for the link that the list will need: GLib aborts the
 * process when it cannot allocate a link.
 */
void *new_list_block(size_t size);

#endif
