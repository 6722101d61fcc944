/*
 * dnscache.h: cached, time-bounded host-name resolution per VRF, for the daemons of a network switch.
 *
 * The life of a lookup
 *
 *   Set-up      Before the first lookup, call dns_cache_init() once with the queue on which your process receives the
 *               completions of background jobs. dns_cache_set_timeout() sets how long answers stay in the cache.
 *
 *   Lookup      struct addrinfo hints = {0}, *res = NULL;
 *               int rc = getaddrinfo_async_mq3("ntp1", "123", &hints, 3, &res);
 *
 *               On a hit, the cache answers at once. On a miss, a child process is forked; it binds itself to the VRF,
 *               resolves the name and hands back a fixed record. The call waits for the child, for at most the
 *               blocking timeout (3 s). No name is ever resolved in your own process.
 *
 *   Try again   -3 means that the child did not finish in time. A second child continues in the background, for at most
 *               300 s. Return to your event loop and repeat the lookup when its completion has arrived.
 *
 *   Completion  When your queue delivers a finished job, pass its five values to dnscache_spawnletcb_job_done(). That
 *               call stores the answer and removes the job from the job list; the next lookup is a hit. A job whose
 *               completion is never passed on counts as running forever.
 *
 *   Refresh     A lookup ignores the age of an answer. Call refresh_dns_cache() from a timer, more often than the
 *               lifetime of answers: it drops expired answers and resolves their names again in the background.
 *
 * Ownership
 *
 *   You own the chain that a lookup returns: release it with freeaddrinfo(). The chain owns its addresses, so it stays
 *   valid when the cache drops the record that it was decoded from. The cache and the job list own their records. The
 *   library keeps no pointer that you pass in.
 *
 * What the library changes in your process
 *
 *   SIGCHLD     While a lookup that misses the cache waits, SIGCHLD has its default disposition; afterwards it is
 *               ignored, whatever it was before. While SIGCHLD is ignored, your own children leave no exit status. If
 *               you have children, save your sigaction() before a lookup and restore it afterwards, then call
 *               raise(SIGCHLD): your handler did not run for children that exited during the wait. Starting a
 *               background job changes no signal disposition.
 *   stdout      Every trace message is printed to standard output and not flushed. Redirect standard output to
 *               /dev/null or a file: it must never block. While the file /bootflash/.enable_dns_debugs exists, messages
 *               also go to /tmp/dnscache.log.PARTITION. The library creates that file, or uses an existing one if it is
 *               a regular file of your own user with no other link, and only where other users cannot replace it (/tmp
 *               is sticky).
 *   Children    Each job is a child of your process. Wait for your own children by pid, never with -1.
 *   rand()      Draws one number for each lookup that misses the cache, for each add_entry_to_dns_cache(), and for each
 *               record that a refresh pass expires.
 *   Memory      When malloc() fails, the call that needed the memory returns an error. GLib aborts the process when it
 *               gets no memory. No call of the library causes that, unless another thread uses up the memory in
 *               between; but your own call of g_list_check_and_prepend() can.
 *   errno       is unchanged.
 *
 * docs/hygiene.md lists these changes for each call.
 *
 * The library has no locks. Call it from one thread, one call at a time, completion handler included. Do not call it
 * from a signal handler.
 */
#ifndef DNSCACHE_DNSCACHE_H
#define DNSCACHE_DNSCACHE_H

#include <glib.h>
#include <netdb.h>
#include <stdint.h>
#include <stdio.h>

/* <netdb.h> hides these from a strict C11 compiler. */
struct addrinfo;
struct sockaddr;

#ifdef __cplusplus
extern "C" {
#endif

/* Limits */

#define MAX_CACHE_ENTRIES 64 /* records in the cache */
#define MAX_SPAWNLETS 10     /* background jobs running at once */

/* Records. Integers are in host byte order. Text is NUL-terminated and padded with zeros. */

enum {
    ENTRY_EMPTY = 0,    /* resolved, but has no address */
    ENTRY_INVALID = 1,  /* expired: lookups skip it, the next purge removes it */
    ENTRY_FAILED = 2,   /* not resolved */
    ENTRY_RESOLVED = 3, /* holds at least one address */
};

/* A struct addrinfo in the layout of a 32-bit process, 32 bytes. The pointer words are never dereferenced. */
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

/* A request, 564 bytes: the argument of a resolver job, and the element of the job list while a background job runs. */
typedef struct {
    uint32_t job_handle; /* set by the job service when it starts a background job; otherwise 0 */
    char serv_name[512]; /* host name */
    char service[12];    /* port, decimal */
    dnscache_addrinfo_image hints;
    int32_t vrf;
} server_addr_info;

/*
 * A result, 1676 bytes: the message of a resolver job to its parent, and a record of the cache. The key is the first
 * member, so the address of the record is also the address of its key. Entry i consists of ai_hdr[i], addr[i], addr6[i]
 * and canonname[i].
 */
typedef struct {
    char serv_id[524]; /* cache key, host:port:vrf */
    char serv_name[512];
    char service[12];
    dnscache_addrinfo_image hints;     /* from the request */
    dnscache_addrinfo_image ai_hdr[4]; /* pointer words 0 */
    uint8_t addr[4][16];               /* the first 16 bytes of the socket address, for any family */
    int32_t vrf;
    uint8_t addr6[4][32]; /* the whole socket address of an IPv6 entry; otherwise zero */
    char canonname[4][65];
    int32_t num_entries; /* 0 to 4 */
    int32_t timestamp;   /* seconds since the epoch when the record entered the cache; 0: not set */
    int32_t status;      /* ENTRY_... */
} server_spawnlet_data_t;

/* The debug log. NULL until a message finds the marker file; then open until the process exits. */
extern FILE *log_file;
/* Path of the last attempt to open the debug log; empty before the first attempt. */
extern char file_name[255];

/* Lookup and set-up */

/*
 * getaddrinfo_async_mq3: look up the addresses of a server in one VRF.
 *
 * node     host name, not NULL; its first 511 characters are looked up
 * service  port in decimal, not NULL; its first 11 characters are used. A service name is resolved, too, but all
 *          service names share the cache key of port 0
 * hints    not NULL. They are stored with the answer but do not restrict it
 * vrf      VRF number, as the platform's VRF binding defines it
 * res      not NULL; set *res = NULL before the call
 *
 *  0       found; *res is a chain of one to four addresses. Release it with freeaddrinfo()
 * -3       not yet: a background job was started. Try again after its completion
 * -1       refused: an argument is NULL, there is no memory, or the child's record is unusable; or the child brought no
 *          result, and MAX_SPAWNLETS jobs are running or the background job could not be started
 * other    negative: the code of getaddrinfo() in the child; gai_strerror() returns its text. This code can be -3, too;
 *          then no background job was started. Failures are not cached
 * other    positive on the Linux platform: the code of the job service, unchanged; errcode2str() returns its text. The
 *          blocking job did not complete, and a background job for the same host is already running
 *
 * The cache key, host:port:vrf, has at most 98 characters. A longer key is cut at its end, where the VRF is. Do not
 * look up names of more than 80 characters: the lookup could return the cached answer of another VRF.
 *
 * If you set *res to NULL, it is NULL after every result other than 0.
 * Blocks   for at most the blocking timeout.
 * Changes  SIGCHLD, see above. Storing an answer in a full cache runs a refresh pass; if the cache is still full, its
 *          oldest record is removed.
 */
int getaddrinfo_async_mq3(const char *node, const char *service, const struct addrinfo *hints, int32_t vrf,
                          struct addrinfo **res);

/*
 * dns_cache_init: register the completion queue. Only the first call has an effect.
 *
 * queue         handle of the platform's queue, passed to its job service
 * timeout_secs  blocking timeout in seconds; 0 keeps the default of 3 s
 *
 * Lookups work without this call, but completions of background jobs are not delivered.
 */
void dns_cache_init(uint32_t queue, int32_t timeout_secs);

/*
 * dns_cache_set_timeout: set the lifetime of answers, in seconds (default: 60). May be called at any time. The value is
 * not checked. The next refresh pass drops every record that is older.
 */
void dns_cache_set_timeout(int32_t timeout_secs);

/* Completion of an asynchronous job, called by the host */

/*
 * dnscache_spawnletcb_job_done: handle one finished background job. The arguments are the values of its completion.
 *
 * handle         handle of the job
 * syserr         code of the job service; only traced
 * ret_info       the record that the child handed back, owned by the job service; NULL if there is none
 * ret_info_size  its size in bytes. If it is less than a record, the job counts as failed
 * ret_syserr     what the child returned: 0, or the code of its getaddrinfo(). If it is not 0, nothing is cached
 *
 * Stores the record in the cache, unless the cache already has an answer for its key, and removes the job from the job
 * list. If there is no memory for the record, the job stays in the list, as if it had no completion; a second call
 * without a record removes it. An unknown handle removes nothing.
 */
void dnscache_spawnletcb_job_done(uint32_t handle, uint32_t syserr, void *ret_info, uint32_t ret_info_size,
                                  int32_t ret_syserr);

/* Cache maintenance */

/*
 * check_local_cache: find the newest usable record with this key and decode it.
 *
 * list     head of the cache, newest record first; NULL is a miss
 * key      cache key, of which 523 characters are compared; not NULL unless list is NULL
 * res      not NULL. Written only when a record is decoded, so set *res = NULL before the call
 *
 *  0       found; *res is a chain. Release it with freeaddrinfo()
 * -1       no usable record, or decoding failed; *res may be a partial chain, which you must release
 *
 * The age of records is not checked: only the refresh pass expires records.
 */
int check_local_cache(GList *list, const char *key, struct addrinfo **res);

/*
 * refresh_dns_cache: run one refresh pass. Marks every record that is older than the lifetime as invalid, starts to
 * resolve its name again in the background, then purges the cache. Never waits for a resolution. Forks at most
 * MAX_SPAWNLETS children.
 */
void refresh_dns_cache(void);

/*
 * add_entry_to_dns_cache: resolve a server in the background, without waiting. If you call this first, and the lookup
 * only after the completion, you never wait.
 *
 * host       host name
 * port, vrf  numbers
 * hints      may be NULL
 *
 *  0       a job was started, or a job for this host, port and VRF is already running, or the cache has the answer
 * -1       no job: host is NULL, there is no memory, MAX_SPAWNLETS jobs are running, or the job service refused
 */
int add_entry_to_dns_cache(const char *host, int port, int vrf, const struct addrinfo *hints);

/* remove_old_entries_from_local_cache: purge the cache: remove every record that is not ENTRY_RESOLVED. */
void remove_old_entries_from_local_cache(void);

/*
 * remove_entry_from_dns_cache: remove every record of one host, with any port, VRF and status. Running jobs for this
 * host continue and store their answers.
 *
 * name     host name, of which 511 characters are compared; not NULL unless the cache is empty
 */
void remove_entry_from_dns_cache(const char *name);

/*
 * g_list_check_and_prepend: put an element at the head of a bounded list.
 *
 * list     address of the list variable
 * data     block from malloc(), which the list owns from now on; NULL adds nothing
 * limit    most elements; 0: no limit; never negative. If the list has reached the limit, its last element is removed.
 *          The limit MAX_CACHE_ENTRIES is reserved for the cache: a refresh pass runs before the removal
 *
 * Returns the new head, which the caller stores in *list; NULL if list is NULL.
 */
GList *g_list_check_and_prepend(GList **list, void *data, int limit);

/* free_node: free() the data of one element, which may be NULL. */
void free_node(void *data);

/* destroy_dns_cache: free a whole list and its data. Returns 0. The caller then sets its list variable to NULL. */
int destroy_dns_cache(GList *list);

/* Records and job body */

/*
 * server_addr_init: fill a request record.
 *
 * serv_name, service  not NULL; cut to 511 and 11 characters
 * hints               may be NULL. A 64-bit build copies its five integers, a 32-bit build all its bytes
 * record              not NULL; all its bytes are written
 *
 * Returns 0; or -1 if serv_name, service or record is NULL, and leaves the record unchanged.
 */
int server_addr_init(const char *serv_name, const char *service, const struct addrinfo *hints, int vrf,
                     server_addr_info *record);

/*
 * resolve_server_hostname: the body of a resolver job. Only the job service calls it, in a child: it permanently binds
 * the calling process to the VRF.
 *
 * request  not NULL, not changed
 *
 * Returns 0 or the negative code of getaddrinfo(). Hands one record to the parent with spawnlet_done().
 */
int resolve_server_hostname(server_addr_info *request);

/* get_list_length: count the nodes of a chain; 0 for NULL. */
int get_list_length(struct addrinfo *ai);

/*
 * get_res_back: decode a record into a chain with one node for each entry.
 *
 * record   may be NULL, which is a failure. Its status is not checked
 * res      not NULL; always written
 *
 *  0       *res is the complete chain. Release it with freeaddrinfo(). It owns its addresses
 * -1       no record or no entries: *res is NULL. Out of memory: *res is a partial chain, which you must release
 *
 * For a negative count, which no record in the cache has, it returns 0 and sets *res to NULL.
 */
int get_res_back(server_spawnlet_data_t *record, struct addrinfo **res);

/* Diagnostics: these calls write trace messages and change nothing. */

/* server_spawnlet_data_display: dump a record, which must not be NULL. */
void server_spawnlet_data_display(const server_spawnlet_data_t *record);

/* display_ip_addrs: dump the five integers of each node of a chain, which may be NULL. */
void display_ip_addrs(const struct addrinfo *ai);

/* display_sockaddr: dump the family and 14 data bytes of a socket address, which must not be NULL. */
void display_sockaddr(const struct sockaddr *sa);

/*
 * get_sock_in_addr: find the address bytes in a socket address: 4 bytes for IPv4, 16 for IPv6. They are part of *sa and
 * valid as long as it is. Returns NULL if sa is NULL or has another family.
 */
const void *get_sock_in_addr(const struct sockaddr *sa);

/*
 * dnscache_wait_for_child: wait at most about two seconds for one of your own children to exit, and reap it. The result
 * is only traced. A child that is still running is left alone.
 *
 * pid      as for waitpid()
 */
void dnscache_wait_for_child(int pid);

#ifdef __cplusplus
}
#endif

#endif
