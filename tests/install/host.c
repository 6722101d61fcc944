/* host.c NAME: print the addresses of a name, built against an installed tree. */
#include <arpa/inet.h>
#include <stdio.h>

#include "dnscache/dnscache.h"
#include "platform/linux/linux_platform.h"

int main(int argc, char **argv)
{
    struct addrinfo hints = {0}, *found = NULL;
    char text[INET6_ADDRSTRLEN] = "";
    dns_cache_init(linux_queue_create(), 0);
    if (argc != 2 || getaddrinfo_async_mq3(argv[1], "123", &hints, 0, &found) != 0)
        return 1;
    for (const struct addrinfo *ai = found; ai != NULL; ai = ai->ai_next)
        puts(inet_ntop(ai->ai_family, get_sock_in_addr(ai->ai_addr), text, sizeof text));
    freeaddrinfo(found);
    return 0;
}
