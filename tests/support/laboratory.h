/*
 * laboratory.h: helpers for tests that run inside scripts/laboratory, with the C library's own resolver.
 */
#ifndef TESTS_SUPPORT_LABORATORY_H
#define TESTS_SUPPORT_LABORATORY_H

#include <netinet/in.h>

#include <set>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "tests/support/jobs.h"

/* A lookup leaves SIGCHLD ignored. system() could not get an exit status then, so the default is restored. */
static inline bool shell(const std::string &command)
{
    signal(SIGCHLD, SIG_DFL);
    return system(command.c_str()) == 0;
}

/* UDP datagrams that the name server of a VRF got, rather than other traffic of the kernel; -1: it does not run. */
static inline int questions(int vrf)
{
    const std::string server = content_of("/run/server" + std::to_string(vrf) + ".pid");
    const std::string counters = content_of("/proc/" + std::to_string(atoi(server.c_str())) + "/net/snmp");
    const size_t at = counters.rfind("\nUdp: ");
    return at != std::string::npos ? atoi(counters.c_str() + at + strlen("\nUdp: ")) : -1;
}

static inline std::string addresses_in(const struct addrinfo *chain)
{
    std::set<std::string> found;
    for (; chain != nullptr; chain = chain->ai_next) {
        char text[64] = "?";
        getnameinfo(chain->ai_addr, chain->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        found.insert(text);
    }
    std::string all;
    for (const std::string &address : found)
        all += (all.empty() ? "" : " ") + address;
    return all;
}

/* The addresses that every name has in a VRF. */
static inline std::string own_addresses(int vrf)
{
    const std::string number = std::to_string(vrf), suffix = vrf != 0 ? number : "";
    return "192.0.2." + number + (vrf != 2 ? " 2001:db8::" + suffix : "");
}

/* The addresses of a name, sorted; if the lookup fails, its code in parentheses. */
static inline std::string look_up(const std::string &name, int vrf)
{
    struct addrinfo hints = {}, *chain = nullptr;
    const int result = getaddrinfo_async_mq3(name.c_str(), "123", &hints, vrf, &chain);
    const std::string found = addresses_in(chain);
    freeaddrinfo(chain);
    return result == 0 ? found : "(" + std::to_string(result) + ")" + found;
}

static inline void empty_cache()
{
    destroy_dns_cache(local_cache);
    local_cache = nullptr;
}

#endif
