/*
 * scripted_resolver.cpp: a getaddrinfo() that answers from a table, SCRIPT. It is linked into a program or preloaded,
 * and children inherit it. The C library's own getaddrinfo() makes the nodes of its chains.
 *
 * Names that start with "any" are answered like the first name in the table. For names that start with "late", entries
 * in the directory SCRIPT_DIR count the calls. The first call never returns. A failure in the table is the result of
 * the second; the third succeeds, which reveals a caller that retries.
 */
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int CRASH = 1000;

static const struct script_line {
    const char *name;
    int code;
    const char *address;
    int socktype;
    int protocol;
    const char *canonname;
} SCRIPT[] = {
    {"pair.test", 0, "192.0.2.1", SOCK_STREAM, IPPROTO_TCP, "www.pair.test"},
    {"pair.test", 0, "2001:db8::1", SOCK_DGRAM, IPPROTO_UDP, nullptr},
    {"kinds.test", 0, "192.0.2.2", SOCK_RAW, 0, nullptr},
    {"kinds.test", 0, "fe80::2%7", SOCK_SEQPACKET, 0, nullptr},
    {"evil.test", 0, "192.0.2.3", SOCK_STREAM, IPPROTO_TCP, "a\033[2J\n\"\x9b\xff"},
    {"late.test", 0, "192.0.2.4", SOCK_STREAM, IPPROTO_TCP, nullptr},
    {"late-fail.test", EAI_NONAME, "192.0.2.5", SOCK_STREAM, IPPROTO_TCP, nullptr},
    {"late-crash.test", CRASH, "192.0.2.6", SOCK_STREAM, IPPROTO_TCP, nullptr},
    {"four.test", 0, "192.0.2.9", SOCK_STREAM, IPPROTO_TCP, "www.four.test"},
    {"four.test", 0, "2001:db8:0:1234:5678:9abc:def0:1", SOCK_DGRAM, IPPROTO_UDP, nullptr},
    {"four.test", 0, "203.0.113.250", SOCK_RAW, 0, nullptr},
    {"four.test", 0, "fe80::a%7", SOCK_SEQPACKET, IPPROTO_SCTP, nullptr},
    {"nosuch.test", EAI_NONAME, nullptr, 0, 0, nullptr},
    {"again.test", EAI_AGAIN, nullptr, 0, 0, nullptr},
    {"odd.test", 1, nullptr, 0, 0, nullptr}, /* not a code of the C library */
};

static int count_call(const char *name)
{
    char path[512];
    int calls = 0;
    do
        snprintf(path, sizeof path, "%s/%s.%d", getenv("SCRIPT_DIR"), name, ++calls);
    while (calls < 9 && mkdir(path, 0700) != 0);
    return calls;
}

static struct addrinfo *make_node(const script_line &line, const char *service)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    struct addrinfo hints = {}, *node = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    real(line.address, service, &hints, &node);
    node->ai_flags = 0;
    node->ai_socktype = line.socktype;
    node->ai_protocol = line.protocol;
    node->ai_canonname = line.canonname ? strdup(line.canonname) : nullptr;
    return node;
}

extern "C" int getaddrinfo(const char *name, const char *service, const struct addrinfo *,
                           struct addrinfo **res)
{
    const int calls = strncmp(name, "late", strlen("late")) == 0 ? count_call(name) : 0;
    if (strcmp(name, "stuck.test") == 0 || calls == 1)
        for (;;)
            pause();
    struct addrinfo **end = res;
    for (const script_line &line : SCRIPT) {
        if (strcmp(name, line.name) != 0 && (strncmp(name, "any", 3) != 0 || line.name != SCRIPT[0].name))
            continue;
        if (line.code == CRASH && calls <= 2)
            raise(SIGKILL);
        if (line.code != 0 && calls <= 2)
            return line.code;
        *end = make_node(line, service);
        end = &(*end)->ai_next;
    }
    return end == res ? EAI_FAIL : 0;
}
