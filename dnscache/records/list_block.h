/*
 * list_block.h: blocks that a list is going to own.
 */
#ifndef DNSCACHE_RECORDS_LIST_BLOCK_H
#define DNSCACHE_RECORDS_LIST_BLOCK_H

#include <stddef.h>

/*
 * new_list_block: malloc() a block for a list.
 *
 * NULL: no memory for it, or none for the link that the list will need, which GLib would end the process over.
 */
void *new_list_block(size_t size);

#endif
