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

/* Returns a kernel counter of the VRF's name server: format reads it after the last label in the file. -1: no label. */
static inline int counter(int vrf, const char *file, const char *label, const char *format)
{
    const std::string server = content_of("/run/server" + std::to_string(vrf) + ".pid");
    const std::string counters = content_of("/proc/" + std::to_string(atoi(server.c_str())) + file);
    int value = -1;
    const size_t at = counters.rfind(label);
    if (at != std::string::npos)
        sscanf(counters.c_str() + at + strlen(label), format, &value);
    return value;
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
    if (chain != nullptr)
        freeaddrinfo(chain);
    return result == 0 ? found : "(" + std::to_string(result) + ")" + found;
}

static inline void empty_cache()
{
    destroy_dns_cache(local_cache);
    local_cache = nullptr;
}

#endif
