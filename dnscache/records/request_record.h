/*
 * request_record.h: request records on the heap, and the cache key.
 */
#ifndef DNSCACHE_RECORDS_REQUEST_RECORD_H
#define DNSCACHE_RECORDS_REQUEST_RECORD_H

#include "dnscache/dnscache.h"

/*
 * new_request_record: a filled request record, for the caller to free or to put into the job list.
 *
 * owner    the exported call that traces a lack of memory
 *
 * NULL: no memory, or an argument that server_addr_init() refuses.
 */
server_addr_info *new_request_record(const char *owner, const char *host, const char *service,
                                     const struct addrinfo *hints, int vrf);

/* Buffer that create_hostcache_id() fills; keys hold at most 98 characters. */
constexpr int CACHE_KEY_BYTES = 99;

/*
 * create_hostcache_id: build the cache key host:port:vrf, cut to 98 characters.
 *
 * out      NULL, or at least CACHE_KEY_BYTES, which are all written
 *
 * Returns the key in a buffer of its own, valid until the next call.
 */
extern "C" const char *create_hostcache_id(const char *host, int port, long vrf, char *out);

/* The port in a key: the leading decimal digits of a service, 0 when there are none. */
int port_of_service(const char *service);

#endif
