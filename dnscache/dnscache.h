/*
 * dnscache.h: cached, time-bounded host-name resolution per VRF, for the daemons of a network switch.
 *
 * The life of a lookup
 *
 *   Set-up      Once, before the first lookup, call dns_cache_init() with the queue on which your process
 *               takes the completions of background jobs. dns_cache_set_timeout() sets how long answers live.
 *
 *   Lookup      struct addrinfo hints = {0}, *res = NULL;
 *               int rc = getaddrinfo_async_mq3("ntp1", "123", &hints, 3, &res);
 *
 *               The cache answers at once. On a miss a child process is forked, binds itself to the VRF,
 *               resolves and hands back a fixed record; you wait for it at most the blocking time-out (3 s).
 *               Nothing is ever resolved in your own process.
 *
 *   Try again   -3 means that the child brought no result in time: a second one goes on in the background, for
 *               300 s at most. Return to your event loop and look the name up again when its completion has come.
 *
 *   Completion  When your queue delivers a finished job, pass its five values to
 *               dnscache_spawnletcb_job_done(). It stores the answer and forgets the job; the retry is a hit.
 *               A job whose completion never reaches that call counts as running for ever.
 *
 *   Refresh     A lookup never looks at an answer's age. Call refresh_dns_cache() from a timer, more often
 *               than the lifetime: it drops what has expired and resolves it anew in the background.
 *
 * Who owns what
 *
 *   A chain from a lookup is yours: release it with freeaddrinfo(). It owns its addresses, so it outlives
 *   whatever the cache does to the record it came from. The cache and the job list own their records. Nothing
 *   that you pass in is kept.
 *
 * What the library changes in your process
 *
 *   SIGCHLD     After a lookup that was not answered from the cache, SIGCHLD is ignored, whatever it was
 *               before; during the wait it has its default. While it is ignored, children of your own leave
 *               no exit status. If you have some, save your sigaction() before a lookup and restore it after,
 *               then raise(SIGCHLD): your handler was not told of those that ended during the wait. Starting
 *               a background job changes no signal disposition.
 *   stdout      Every trace message is printed to standard output, unflushed: have one that never blocks, such as
 *               /dev/null or a file. While the file
 *               /bootflash/.enable_dns_debugs exists it goes to /tmp/dnscache.log.PARTITION too, if that is
 *               a regular file of your own user's, with no other link, or there is nothing yet, and if others
 *               cannot replace it there (/tmp is sticky).
 *   Children    One for each job. They are your children: wait for your own by pid, never by -1.
 *   rand()      One number is drawn by each lookup that misses the cache, and by each call that may start a
 *               background job.
 *   Memory      malloc() failing is reported by the call that needed it. GLib ends a process that it has no
 *               memory for: as long as no other thread takes what there is, no call gets so far, but
 *               g_list_check_and_prepend() called by yourself.
 *   errno       is left alone.
 *
 * docs/hygiene.md has it call by call.
 *
 * One thread, one call at a time, the completion handler included: there are no locks. Do not call from a
 * signal handler.
 */
#ifndef DNSCACHE_DNSCACHE_H
#define DNSCACHE_DNSCACHE_H

#include <glib.h>
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>

/* Named here because a strict C11 compile does not see them in <netdb.h>. */
struct addrinfo;
struct sockaddr;

#ifdef __cplusplus
extern "C" {
#endif

/* Limits */

#define MAX_CACHE_ENTRIES 64 /* records in the cache */
#define MAX_SPAWNLETS 10     /* background jobs running at once */

/* Records. All integers are in host byte order; text is NUL-terminated and padded with zeros to its end. */

enum {
    ENTRY_EMPTY = 0,    /* resolved, but without any address */
    ENTRY_INVALID = 1,  /* expired: lookups skip it, the next purge drops it */
    ENTRY_FAILED = 2,   /* not resolved */
    ENTRY_RESOLVED = 3, /* holds at least one address */
};

/* A struct addrinfo as a 32-bit process lays it out, 32 bytes. Nobody follows the pointer words. */
typedef struct {
    int32_t ai_flags;
    int32_t ai_family;
    int32_t ai_socktype;
    int32_t ai_protocol;
    uint32_t ai_addrlen;
    uint32_t ai_addr;
    uint32_t ai_canonname;
    uint32_t ai_next;
} dnscache_addrinfo_image;

/* What to resolve, 564 bytes: the argument of a resolver job, and a running background job in the job list. */
typedef struct {
    uint32_t job_handle; /* written by the job service when the job starts in the background; else 0 */
    char serv_name[512]; /* host name */
    char service[12];    /* port, decimal */
    dnscache_addrinfo_image hints;
    int32_t vrf;
} server_addr_info;

/*
 * What a resolver job found, 1676 bytes: its message to the parent, and an entry of the cache. The key comes
 * first, so that the record's address is also its key's. Entry i is ai_hdr[i], addr[i], addr6[i],
 * canonname[i].
 */
typedef struct {
    char serv_id[524]; /* cache key, host:port:vrf */
    char serv_name[512];
    char service[12];
    dnscache_addrinfo_image hints;     /* of the request */
    dnscache_addrinfo_image ai_hdr[4]; /* pointer words 0 */
    uint8_t addr[4][16];               /* the first 16 bytes of the socket address, whatever its family */
    int32_t vrf;
    uint8_t addr6[4][32]; /* the whole socket address of an IPv6 entry; else zero */
    char canonname[4][65];
    int32_t num_entries; /* 0 to 4 */
    int32_t timestamp;   /* seconds since the epoch at which the record entered the cache; 0 not set */
    int32_t status;      /* ENTRY_... */
} server_spawnlet_data_t;

/* The debug log: NULL until the first message that found its marker file, then open as long as the process. */
extern FILE *log_file;
/* Path of the last attempt to open the debug log; empty before the first. */
extern char file_name[255];

/* Lookup and set-up */

/*
 * getaddrinfo_async_mq3: the addresses of a server in one VRF.
 *
 * node     host name, not NULL; its first 511 characters are looked up
 * service  port in decimal, not NULL; its first 11 characters are used. Port names are looked up too, but all
 *          of them share the cache key of port 0
 * hints    not NULL. Carried along, but it does not restrict the answer
 * vrf      VRF number, as the platform's VRF binding counts them
 * res      not NULL; set *res = NULL before the call
 *
 *  0       found; *res is a chain of one to four addresses that you release with freeaddrinfo()
 * -3       not yet: a background job was started. Try again after its completion
 * -1       refused: an argument is NULL, no memory, or the child's record was unusable; or the child brought no
 *          result, and MAX_SPAWNLETS jobs are running or the background job could not be started
 * other    the child's getaddrinfo() code, negative; gai_strerror() has its text. It may be -3 as well, which
 *          then has no job behind it. Failures are not cached
 * other    the job service's code, unchanged; errcode2str() has its text. The blocking job was not completed
 *          and a background job for the same host is running already. The Linux platform's are positive
 *
 * The cache key, host:port:vrf, holds 98 characters. Of a longer one the VRF is cut first: look up no names of more
 * than 80 characters, or the cached answer of another VRF may be what you get.
 *
 * After any result but 0, *res is NULL if you set it so.
 * Blocks   for the blocking time-out at most.
 * Changes  SIGCHLD, see above. A full cache is refreshed, then gives up its oldest record.
 */
int getaddrinfo_async_mq3(const char *node, const char *service, const struct addrinfo *hints, int32_t vrf,
                          struct addrinfo **res);

/*
 * dns_cache_init: register the completion queue. The first call counts; later ones change nothing.
 *
 * queue         the platform's queue handle, passed on to its job service
 * timeout_secs  blocking time-out in seconds; 0 keeps the 3 s
 *
 * Without it lookups work, but completions of background jobs are not delivered.
 */
void dns_cache_init(uint32_t queue, int32_t timeout_secs);

/*
 * dns_cache_set_timeout: how many seconds an answer lives, 60 at start. Taken unchecked, at any time; it
 * counts from the next refresh pass on, which drops every record older than this.
 */
void dns_cache_set_timeout(int32_t timeout_secs);

/* Completion of an asynchronous job, called by the host */

/*
 * dnscache_spawnletcb_job_done: take in one finished background job, with the values its completion carries.
 *
 * handle         the job's handle
 * syserr         the job service's code, only traced
 * ret_info       the record that the child handed back; stays the job service's. NULL: none
 * ret_info_size  its size in bytes. Less than a record: the job counts as failed
 * ret_syserr     what the child returned: 0, or the code of its getaddrinfo(). Nonzero: nothing is cached
 *
 * The record enters the cache unless its key is answered there already; the job leaves the job list. If
 * memory runs out the job stays listed, as if its completion had not come; a second call, with no record, ends
 * that. An unknown handle removes nothing.
 */
void dnscache_spawnletcb_job_done(uint32_t handle, uint32_t syserr, void *ret_info, uint32_t ret_info_size,
                                  int32_t ret_syserr);

/* Cache maintenance */

/*
 * check_local_cache: find the newest usable record with this key and decode it.
 *
 * list     cache head, newest first; NULL is a miss
 * key      cache key, compared over 523 characters; not NULL unless list is NULL
 * res      not NULL; written by the decoding only, so set *res = NULL first
 *
 *  0       found; *res is a chain that you release with freeaddrinfo()
 * -1       no usable record, or decoding failed; *res may hold a partial chain to release
 *
 * Age is not examined: only the refresh pass expires records.
 */
int check_local_cache(GList *list, const char *key, struct addrinfo **res);

/*
 * refresh_dns_cache: one refresh pass. Marks every record older than the lifetime invalid, starts resolving
 * it anew in the background, then purges. Never blocks on a resolution; forks up to MAX_SPAWNLETS children.
 */
void refresh_dns_cache(void);

/*
 * add_entry_to_dns_cache: resolve a server in the background, without waiting. With a lookup after its
 * completion this is the way to never wait at all.
 *
 * host     host name;  port, vrf  numbers;  hints  may be NULL
 *
 *  0       a job was started, or is running already for this host, port and VRF, or the cache has the answer
 * -1       no job: host is NULL, no memory, MAX_SPAWNLETS are running, or the job service refused
 */
int add_entry_to_dns_cache(const char *host, int port, int vrf, const struct addrinfo *hints);

/* remove_old_entries_from_local_cache: the purge. Drops every record that is not ENTRY_RESOLVED. */
void remove_old_entries_from_local_cache(void);

/*
 * remove_entry_from_dns_cache: drop every record of one host, whatever its port, VRF or status. Jobs that are
 * running for it go on and store their answers.
 *
 * name     host name, compared over 511 characters; not NULL unless the cache is empty
 */
void remove_entry_from_dns_cache(const char *name);

/*
 * g_list_check_and_prepend: put an element at the head of a list that is bounded.
 *
 * list     address of the list variable
 * data     malloc()ed block that the list owns from now on; NULL adds nothing
 * limit    most elements; 0 for no limit, never negative. A list that has reached it gives up its last
 *          element. With a limit of MAX_CACHE_ENTRIES, which must come with the cache itself, a refresh pass
 *          runs first
 *
 * Returns the new head, which the caller stores in *list; NULL if list is NULL.
 */
GList *g_list_check_and_prepend(GList **list, void *data, int limit);

/* free_node: free() for one element's data; NULL is fine. */
void free_node(void *data);

/* destroy_dns_cache: free a whole list and its data. Returns 0. The caller sets its variable to NULL. */
int destroy_dns_cache(GList *list);

/* Records and job body */

/*
 * server_addr_init: fill a request record.
 *
 * serv_name, service  not NULL; cut to 511 and 11 characters
 * hints               may be NULL. A 64-bit build keeps its five integers, a 32-bit build all its bytes
 * record              not NULL; overwritten whole
 *
 * Returns 0; -1 for a NULL, with the record untouched.
 */
int server_addr_init(const char *serv_name, const char *service, const struct addrinfo *hints, int vrf,
                     server_addr_info *record);

/*
 * resolve_server_hostname: the body of a resolver job. For the job service, in a child of its own: it binds
 * the calling process to the VRF for good.
 *
 * request  not NULL, not changed
 *
 * Returns 0 or the negative code of getaddrinfo(). Hands one record back through spawnlet_done().
 */
int resolve_server_hostname(server_addr_info *request);

/* get_list_length: number of nodes in a chain; 0 for NULL. */
int get_list_length(struct addrinfo *ai);

/*
 * get_res_back: decode a record into a chain, one node an entry.
 *
 * record   its status is not examined; NULL fails
 * res      not NULL; always written
 *
 *  0       *res is the whole chain, which the caller releases with freeaddrinfo(). It owns its addresses
 * -1       no record or no entries: *res is NULL. Out of memory: *res is the chain so far, to be released
 *
 * A negative count, which no record in the cache has, decodes to 0 and NULL.
 */
int get_res_back(server_spawnlet_data_t *record, struct addrinfo **res);

/* Diagnostics: each writes trace messages and changes nothing. */

/* server_spawnlet_data_display: dump a record, not NULL. */
void server_spawnlet_data_display(const server_spawnlet_data_t *record);

/* display_ip_addrs: dump the five integers of each node of a chain, which may be NULL. */
void display_ip_addrs(const struct addrinfo *ai);

/* display_sockaddr: dump the family and 14 data bytes of a socket address, not NULL. */
void display_sockaddr(const struct sockaddr *sa);

/*
 * get_sock_in_addr: the address bytes inside a socket address: 4 of IPv4, 16 of IPv6. They lie in sa and live
 * as long. NULL when sa is NULL or of another family.
 */
const void *get_sock_in_addr(const struct sockaddr *sa);

/*
 * dnscache_wait_for_child: wait for a child of your own to exit, about two seconds at most, and reap it. The
 * outcome is only traced; a child that is still running is left alone.
 *
 * pid      as for waitpid()
 */
void dnscache_wait_for_child(int pid);

#ifdef __cplusplus
}
#endif

#endif
