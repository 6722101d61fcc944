/*
 * record_intake.h: where a record that another process wrote becomes one of ours.
 */
#ifndef DNSCACHE_RECORDS_RECORD_INTAKE_H
#define DNSCACHE_RECORDS_RECORD_INTAKE_H

#include "dnscache/dnscache.h"

/*
 * new_record_from_child: copy a record out of the job service's buffer, on the heap.
 *
 * buffer   at least 1676 bytes, of any content
 *
 * Every text that is read as a string is terminated and a negative count becomes 0. Too large a count,
 * canonical names and address lengths stay as they came: the decoder bounds, and reports, those. NULL: no memory.
 */
server_spawnlet_data_t *new_record_from_child(const void *buffer);

#endif
