/*
 * peers.cpp: measures other ways to get the two IPv4 and two IPv6 addresses of a name: libc, libunbound and c-ares.
 * libunbound and c-ares are measured only if they were installed when the benchmark was built.
 */
#include <arpa/nameser.h>
#include <sys/select.h>

#ifdef BENCH_ARES
#include <ares.h>
#endif
#ifdef BENCH_UNBOUND
#include <unbound.h>
#endif

#include "bench/bench.h"

static constexpr int ADDRESSES = 4;

/* libc */

static void libc(benchmark::State &state, const char *name)
{
    struct addrinfo hints = {};
    hints.ai_socktype = SOCK_DGRAM; /* so that each address is listed once */
    for (auto _ : state) {
        struct addrinfo *chain = nullptr;
        if (getaddrinfo(name, SERVICE, &hints, &chain) != 0 || get_list_length(chain) != ADDRESSES)
            give_up("libc did not return four addresses");
        if (chain != nullptr)
            freeaddrinfo(chain);
    }
}

BENCHMARK_CAPTURE(libc, files, FILES_NAME);
BENCHMARK_CAPTURE(libc, dns, DNS_NAME);

#ifdef BENCH_UNBOUND

/* A resolver with a cache, in the process. It asks the same dnsmasq once for each type; then its cache answers. */
static struct ub_ctx *unbound_context()
{
    static struct ub_ctx *const context = [] {
        struct ub_ctx *made = ub_ctx_create();
        if (made == nullptr || ub_ctx_set_fwd(made, "127.0.0.1") != 0 ||
            ub_ctx_set_option(made, "do-not-query-localhost:", "no") != 0)
            give_up("libunbound cannot be set up");
        return made;
    }();
    return context;
}

static int unbound_addresses(const char *name, int type)
{
    struct ub_result *result = nullptr;
    int count = 0;
    if (ub_resolve(unbound_context(), name, type, ns_c_in, &result) == 0)
        while (result->data[count] != nullptr)
            count++;
    ub_resolve_free(result);
    return count;
}

static void unbound_cached(benchmark::State &state)
{
    for (auto _ : state)
        if (unbound_addresses(DNS_NAME, ns_t_a) + unbound_addresses(DNS_NAME, ns_t_aaaa) != ADDRESSES)
            give_up("libunbound did not return four addresses");
}

BENCHMARK(unbound_cached);

#endif

#ifdef BENCH_ARES

static ares_channel ares()
{
    static const ares_channel channel = [] {
        struct ares_options options = {};
        char dns_only[] = "b";
        options.lookups = dns_only;
        ares_channel made;
        if (ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS ||
            ares_init_options(&made, &options, ARES_OPT_LOOKUPS) != ARES_SUCCESS)
            give_up("c-ares cannot be set up");
        return made;
    }();
    return channel;
}

static void count_addresses(void *count, int, int, struct ares_addrinfo *answer)
{
    for (const auto *node = answer != nullptr ? answer->nodes : nullptr; node != nullptr;
         node = node->ai_next)
        ++*static_cast<int *>(count);
    ares_freeaddrinfo(answer);
}

static void ares_run()
{
    for (;;) {
        fd_set readable, writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        const int end = ares_fds(ares(), &readable, &writable);
        if (end == 0)
            return;
        struct timeval buffer;
        select(end, &readable, &writable, nullptr, ares_timeout(ares(), nullptr, &buffer));
        ares_process(ares(), &readable, &writable);
    }
}

static void ares_dns(benchmark::State &state)
{
    struct ares_addrinfo_hints hints = {};
    hints.ai_socktype = SOCK_DGRAM;
    for (auto _ : state) {
        int count = 0;
        ares_getaddrinfo(ares(), DNS_NAME, SERVICE, &hints, count_addresses, &count);
        ares_run();
        if (count != ADDRESSES)
            give_up("c-ares did not return four addresses");
    }
}

BENCHMARK(ares_dns);

#endif
