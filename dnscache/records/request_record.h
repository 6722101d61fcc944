/*
 * request_record.h: request records on the heap. jobs/job_list.cpp frees those whose job has started.
 */
#ifndef DNSCACHE_RECORDS_REQUEST_RECORD_H
#define DNSCACHE_RECORDS_REQUEST_RECORD_H

#include "dnscache/dnscache.h"

/*
 * new_request_record: allocate and fill a request record. The caller frees it or adds it to the job list.
 *
 * traced_as  the exported call that needs the record
 *
 * Returns NULL when out of memory, or when server_addr_init() refuses an argument.
 */
server_addr_info *new_request_record(const char *traced_as, const char *host, const char *service,
                                     const struct addrinfo *hints, int vrf);

#endif
