/*
 * record_intake.h: turns the bytes that a child handed back into a record that the library can trust.
 */
#ifndef DNSCACHE_RECORDS_RECORD_INTAKE_H
#define DNSCACHE_RECORDS_RECORD_INTAKE_H

#include "dnscache/dnscache.h"

/*
 * new_record_from_child: copy a record from the job service's buffer to the heap.
 *
 * buffer   at least 1676 bytes, with any content
 *
 * Terminates every text that is read as a string and sets a negative count to 0. Leaves counts that are too large,
 * canonical names and address lengths unchanged: the decoder limits them.
 *
 * Returns NULL when out of memory.
 */
server_spawnlet_data_t *new_record_from_child(const void *buffer);

#endif
