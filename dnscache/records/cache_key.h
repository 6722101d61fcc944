/*
 * cache_key.h: the key of a cache record, host:port:vrf.
 */
#ifndef DNSCACHE_RECORDS_CACHE_KEY_H
#define DNSCACHE_RECORDS_CACHE_KEY_H

/* Size of the buffer that create_hostcache_id() fills. Longer keys are cut to 98 characters. */
constexpr int CACHE_KEY_BYTES = 99;

/*
 * create_hostcache_id: build the cache key.
 *
 * out      NULL, or at least CACHE_KEY_BYTES, all of which are written
 *
 * Returns the key in a static buffer, valid until the next call.
 */
extern "C" const char *create_hostcache_id(const char *host, int port, long vrf, char *out);

/* port_of_service: the port for a cache key: the decimal number that the service starts with; 0 if it has none. */
int port_of_service(const char *service);

#endif
