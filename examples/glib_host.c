/*
 * glib_host.c: a daemon on GLib's main loop that keeps the addresses of one server and never waits for them.
 *
 *     glib_host HOST [PORT [VRF [LIFETIME]]] > /dev/null
 *
 * PORT is 123 by default, VRF 0, and LIFETIME, the seconds that an answer is good for, 60.
 * Its own lines go to standard error, the library's trace to standard output. SIGTERM and SIGINT end it.
 */
#include <arpa/inet.h>
#include <glib-unix.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "dnscache/dnscache.h"
#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

struct host {
    GMainLoop *loop;
    uint32_t queue;
    const char *server;
    int port, vrf;
    struct addrinfo *addresses; /* the last answer, the host's own until there is a newer; NULL: none yet */
    int exit_code;
};

static void show_addresses(const struct host *host)
{
    fprintf(stderr, "%s:", host->server);
    for (const struct addrinfo *ai = host->addresses; ai != NULL; ai = ai->ai_next) {
        char text[INET6_ADDRSTRLEN];
        const void *address = get_sock_in_addr(ai->ai_addr);
        if (address != NULL && inet_ntop(ai->ai_family, address, text, sizeof text) != NULL)
            fprintf(stderr, " %s", text);
    }
    fputc('\n', stderr);
}

/* Only for a server that the cache has: for any other it would wait, as it may if memory has run out since. */
static void look_up(struct host *host)
{
    char service[12];
    struct addrinfo hints = {0}, *found = NULL;
    snprintf(service, sizeof service, "%d", host->port);
    const int result = getaddrinfo_async_mq3(host->server, service, &hints, host->vrf, &found);
    if (result != 0) { /* no memory; the last answer is still there */
        fprintf(stderr, "%s: lookup: %d\n", host->server, result);
        return;
    }
    if (host->addresses != NULL)
        freeaddrinfo(host->addresses);
    host->addresses = found;
    show_addresses(host);
}

/*
 * A job that failed left nothing in the cache, so there is nothing to look up: the timer starts the next one. A host of
 * several servers finds whose answer it is in the record, by serv_name, service and vrf.
 */
static void take_completion(struct host *host, const linux_completion *done)
{
    const server_spawnlet_data_t *record = done->ret_info;
    dnscache_spawnletcb_job_done(done->handle, done->syserr, done->ret_info, done->ret_info_size,
                                 done->ret_syserr);
    /* Once more, without the record: had there been no memory for it, the job would count as running for ever. */
    dnscache_spawnletcb_job_done(done->handle, done->syserr, NULL, 0, done->ret_syserr);
    if (done->syserr != LINUX_JOB_OK)
        fprintf(stderr, "%s: %s\n", host->server, errcode2str(done->syserr));
    else if (done->ret_syserr != 0)
        fprintf(stderr, "%s: %s\n", host->server, gai_strerror(done->ret_syserr));
    else if (done->ret_info_size < sizeof *record || record->status != ENTRY_RESOLVED)
        fprintf(stderr, "%s: no usable answer\n", host->server);
    else
        look_up(host);
}

static gboolean queue_is_readable(gint queue, GIOCondition condition, gpointer data)
{
    struct host *host = data;
    linux_completion done;
    int taken;
    (void)condition;
    while ((taken = linux_queue_next((uint32_t)queue, &done)) == 1)
        take_completion(host, &done);
    if (taken < 0) {
        perror("linux_queue_next");
        host->exit_code = EXIT_FAILURE;
        g_main_loop_quit(host->loop);
    }
    return G_SOURCE_CONTINUE;
}

/*
 * The pass resolves anew what has expired. The start is for a server that has no answer, and else starts nothing. A host
 * of more than MAX_SPAWNLETS servers goes on starting them when a completion has come: see dnscache(7).
 */
static gboolean keep_fresh(gpointer data)
{
    const struct host *host = data;
    refresh_dns_cache();
    if (add_entry_to_dns_cache(host->server, host->port, host->vrf, NULL) != 0)
        fprintf(stderr, "%s: no job could be started\n", host->server);
    else if (host->addresses == NULL)
        fprintf(stderr, "%s: no addresses yet\n", host->server);
    return G_SOURCE_CONTINUE;
}

static gboolean signal_arrived(gpointer data)
{
    g_main_loop_quit(data);
    return G_SOURCE_CONTINUE;
}

static void run(struct host *host, int lifetime)
{
    host->loop = g_main_loop_new(NULL, FALSE);
    const guint sources[] = {
        g_unix_signal_add(SIGTERM, signal_arrived, host->loop),
        g_unix_signal_add(SIGINT, signal_arrived, host->loop),
        g_unix_fd_add((gint)host->queue, G_IO_IN, queue_is_readable, host),
        g_timeout_add((guint)lifetime * 1000 / 3, keep_fresh, host), /* more often than answers expire */
    };
    keep_fresh(host);
    g_main_loop_run(host->loop);
    for (size_t i = 0; i < G_N_ELEMENTS(sources); i++)
        g_source_remove(sources[i]);
    g_main_loop_unref(host->loop);
}

/* A decimal number from least to most; -1 is none. */
static int number(const char *text, long least, long most)
{
    char *end;
    const long value = strtol(text, &end, 10);
    return end != text && *end == '\0' && value >= least && value <= most ? (int)value : -1;
}

int main(int argc, char **argv)
{
    struct host host = {.port = argc > 2 ? number(argv[2], 0, 65535) : 123,
                        .vrf = argc > 3 ? number(argv[3], 0, INT32_MAX) : 0};
    const int lifetime = argc > 4 ? number(argv[4], 1, 86400) : 60;
    if (argc < 2 || argc > 5 || host.port < 0 || host.vrf < 0 || lifetime < 0) {
        fprintf(stderr, "usage: %s HOST [PORT [VRF [LIFETIME]]]\n", argv[0]);
        return EXIT_FAILURE;
    }
    host.server = argv[1];
    host.queue = linux_queue_create();
    if (host.queue == 0) {
        perror("linux_queue_create");
        return EXIT_FAILURE;
    }
    dns_cache_init(host.queue, 0);
    dns_cache_set_timeout(lifetime);
    run(&host, lifetime);
    if (host.addresses != NULL)
        freeaddrinfo(host.addresses);
    close((int)host.queue);
    return host.exit_code;
}
