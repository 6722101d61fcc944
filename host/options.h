/*
 * options.h: the command line of dnscache-lookup.
 */
#ifndef HOST_OPTIONS_H
#define HOST_OPTIONS_H

#include <glib.h>
#include <stdint.h>

struct lookup_options {
    const char *service;
    int32_t vrf;
    int32_t timeout_secs;  /* 0: the library's default */
    int32_t lifetime_secs; /* -1: the library's default */
    int32_t times;
    gboolean no_wait;
    gboolean json;
    gboolean verbose;
    gboolean vrfs;
    gboolean version;
    char **hosts; /* NULL-terminated; NULL when requests come from standard input */
};

/*
 * parse_options: read the command line. With --help it prints the help and exits.
 *
 * options  out; its strings are valid until the program ends, and are never freed
 *
 * Returns false after a usage error, which it has printed to standard error.
 */
bool parse_options(int argc, char **argv, struct lookup_options *options);

#endif
