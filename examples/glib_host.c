/*
 * glib_host.c: a daemon on GLib's main loop that keeps the addresses of one server and never waits for them.
 *
 *     glib_host HOST [PORT [VRF [LIFETIME]]] > /dev/null
 *
 * The defaults are PORT 123, VRF 0, and a LIFETIME of 60, in seconds: the host refreshes an answer that is older.
 * Its own lines go to standard error, the library's trace to standard output. It exits on SIGTERM and SIGINT.
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

struct host_state {
    GMainLoop *loop;
    uint32_t queue;
    const char *server;
    int port, vrf;
    struct addrinfo *addresses; /* the last answer, which the host owns; NULL: none yet */
    int exit_code;
};

static void show_addresses(const struct host_state *host)
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

/* Call it only for a server in the cache. For any other server it waits, and also if it gets no memory. */
static void look_up(struct host_state *host)
{
    char service[12];
    struct addrinfo hints = {0}, *found = NULL;
    snprintf(service, sizeof service, "%d", host->port);
    const int result = getaddrinfo_async_mq3(host->server, service, &hints, host->vrf, &found);
    if (result != 0) { /* out of memory; the last answer is kept */
        fprintf(stderr, "%s: lookup: %d\n", host->server, result);
        return;
    }
    if (host->addresses != NULL)
        freeaddrinfo(host->addresses);
    host->addresses = found;
    show_addresses(host);
}

/*
 * Called once the library has the answer. A job that failed has stored nothing in the cache, so there is nothing to
 * look up: the timer starts the next job. A host with several servers finds out from the record which of them it
 * belongs to: serv_name, service and vrf.
 */
static void completion_delivered(const linux_completion *done, void *data)
{
    struct host_state *host = data;
    const server_spawnlet_data_t *record = done->ret_info;
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
    struct host_state *host = data;
    (void)condition;
    if (linux_queue_dispatch((uint32_t)queue, dnscache_spawnletcb_job_done, completion_delivered, host) < 0) {
        perror("linux_queue_dispatch");
        host->exit_code = EXIT_FAILURE;
        g_main_loop_quit(host->loop);
    }
    return G_SOURCE_CONTINUE;
}

/*
 * refresh_dns_cache() resolves expired answers again. add_entry_to_dns_cache() starts a job only if the server has no
 * answer. A host with more than MAX_SPAWNLETS servers starts the remaining jobs as completions arrive: see dnscache(7).
 */
static gboolean keep_fresh(gpointer data)
{
    const struct host_state *host = data;
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

static void run(struct host_state *host, int lifetime)
{
    host->loop = g_main_loop_new(NULL, FALSE);
    const guint sources[] = {
        g_unix_signal_add(SIGTERM, signal_arrived, host->loop),
        g_unix_signal_add(SIGINT, signal_arrived, host->loop),
        g_unix_fd_add((gint)host->queue, G_IO_IN, queue_is_readable, host),
        g_timeout_add((guint)lifetime * 1000 / 3, keep_fresh, host), /* three times per lifetime */
    };
    keep_fresh(host);
    g_main_loop_run(host->loop);
    for (size_t i = 0; i < G_N_ELEMENTS(sources); i++)
        g_source_remove(sources[i]);
    g_main_loop_unref(host->loop);
}

/* Reads a decimal number from least to most. Returns -1 if the text is not one. */
static int number(const char *text, long least, long most)
{
    char *end;
    const long value = strtol(text, &end, 10);
    return end != text && *end == '\0' && value >= least && value <= most ? (int)value : -1;
}

int main(int argc, char **argv)
{
    struct host_state host = {.port = argc > 2 ? number(argv[2], 0, 65535) : 123,
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
