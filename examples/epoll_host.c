/*
 * epoll_host.c: a daemon on plain epoll that keeps the addresses of one server and never waits for them.
 *
 *     epoll_host HOST [PORT [VRF [LIFETIME]]] > /dev/null
 *
 * The defaults are PORT 123, VRF 0, and a LIFETIME of 60, in seconds: the host refreshes an answer that is older.
 * Its own lines go to standard error, the library's trace to standard output. It exits on SIGTERM and SIGINT.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "dnscache/dnscache.h"
#include "platform/linux/linux_platform.h"
#include "platform/spawnlet.h"

struct host_state {
    int loop, timer, signals;
    uint32_t queue;
    const char *server;
    int port, vrf;
    struct addrinfo *addresses; /* the last answer, which the host owns; NULL: none yet */
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

/* Returns false when the queue cannot be used any more. */
static bool take_completions(struct host_state *host)
{
    if (linux_queue_dispatch(host->queue, dnscache_spawnletcb_job_done, completion_delivered, host) >= 0)
        return true;
    perror("linux_queue_dispatch");
    return false;
}

/*
 * refresh_dns_cache() resolves expired answers again. add_entry_to_dns_cache() starts a job only if the server has no
 * answer. A host with more than MAX_SPAWNLETS servers starts the remaining jobs as completions arrive: see dnscache(7).
 */
static void keep_fresh(const struct host_state *host)
{
    refresh_dns_cache();
    if (add_entry_to_dns_cache(host->server, host->port, host->vrf, NULL) != 0)
        fprintf(stderr, "%s: no job could be started\n", host->server);
    else if (host->addresses == NULL)
        fprintf(stderr, "%s: no addresses yet\n", host->server);
}

static bool watch(const struct host_state *host, int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};
    return fd >= 0 && epoll_ctl(host->loop, EPOLL_CTL_ADD, fd, &event) == 0;
}

/* Returns false with errno. */
static bool open_descriptors(struct host_state *host, int lifetime)
{
    /* Expires at once, and then three times in each lifetime of an answer. */
    const struct itimerspec period = {
        .it_interval = {.tv_sec = lifetime / 3, .tv_nsec = lifetime % 3 * 333333333L},
        .it_value = {.tv_nsec = 1}};
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, NULL);
    host->queue = linux_queue_create();
    host->loop = epoll_create1(EPOLL_CLOEXEC);
    host->timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    host->signals = signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
    return host->queue != 0 && host->loop >= 0 && watch(host, (int)host->queue) && watch(host, host->timer) &&
           watch(host, host->signals) && timerfd_settime(host->timer, 0, &period, NULL) == 0;
}

/* Each turn handles one event: descriptors that are still readable are reported again. */
static int run(struct host_state *host)
{
    for (;;) {
        struct epoll_event event;
        uint64_t expirations;
        const int ready = epoll_wait(host->loop, &event, 1, -1);
        if (ready < 0 && errno != EINTR) {
            perror("epoll_wait");
            return EXIT_FAILURE;
        }
        if (ready <= 0)
            continue;
        if (event.data.fd == host->signals)
            return EXIT_SUCCESS;
        if (event.data.fd == (int)host->queue && !take_completions(host))
            return EXIT_FAILURE;
        if (event.data.fd == host->timer && read(host->timer, &expirations, sizeof expirations) > 0)
            keep_fresh(host);
    }
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
    if (!open_descriptors(&host, lifetime)) {
        perror(argv[0]);
        return EXIT_FAILURE;
    }
    dns_cache_init(host.queue, 0);
    dns_cache_set_timeout(lifetime);
    const int exit_code = run(&host);
    if (host.addresses != NULL)
        freeaddrinfo(host.addresses);
    close(host.signals);
    close(host.timer);
    close(host.loop);
    close((int)host.queue);
    return exit_code;
}
