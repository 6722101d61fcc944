/*
 * options.cpp: the command line. Numbers are taken as strings and parsed here: GOption would read 010 as octal 8.
 */
#include "host/options.h"

#include <stdio.h>
#include <unistd.h>

#include "host/line_reader.h"
#include "host/output.h"
#include "platform/linux/linux_platform.h"

#define SECONDS_MAX G_STRINGIFY(LINUX_JOB_SECONDS_MAX)

static constexpr char SUMMARY[] =
    "Looks up host names through the resolver cache, and prints one line per address. Each lookup that the\n"
    "cache cannot answer runs in its own child process.\n"
    "Without HOST, requests are read from standard input, one per line: HOST [PORT [VRF]]. A # starts a\n"
    "comment; PORT and VRF default to the values of --service and --vrf.";

static constexpr char DESCRIPTION[] =
    "A lookup that takes longer than the timeout continues in the background, for at most " SECONDS_MAX
    " seconds.\n"
    "\n"
    "Exit status, the largest that applies:\n"
    "  0  all names were resolved\n"
    "  1  usage error\n"
    "  2  a name could not be resolved, or is not valid\n"
    "  3  a lookup has no result yet; try again later\n"
    "  4  any other error\n"
    "  5  a VRF does not exist, or this user cannot use it\n";

struct option_texts {
    char *service;
    char *vrf;
    char *timeout;
    char *lifetime;
    char *times;
};

static bool usage_error(const char *message)
{
    g_autofree char *shown = printable_text(message);
    fprintf(stderr, "dnscache-lookup: %s\nTry 'dnscache-lookup --help'.\n", shown);
    return false;
}

static bool read_numbers(const struct option_texts *texts, struct lookup_options *options)
{
    const struct {
        const char *name;
        const char *text;
        int32_t min;
        int32_t max;
        int32_t *value;
    } numbers[] = {
        {"vrf", texts->vrf, 0, INT32_MAX, &options->vrf},
        {"timeout", texts->timeout, 1, LINUX_JOB_SECONDS_MAX, &options->timeout_secs},
        {"lifetime", texts->lifetime, 0, INT32_MAX, &options->lifetime_secs},
        {"times", texts->times, 1, INT32_MAX, &options->times},
    };
    for (const auto &number : numbers) {
        if (number.text == nullptr || parse_decimal(number.text, number.min, number.max, number.value))
            continue;
        g_autofree char *message =
            g_strdup_printf("--%s is not a number from %d to %d", number.name, number.min, number.max);
        return usage_error(message);
    }
    return true;
}

static bool check_options(const struct option_texts *texts, struct lookup_options *options)
{
    if (!read_numbers(texts, options))
        return false;
    if (texts->service != nullptr)
        options->service = texts->service;
    if (!service_is_valid(options->service))
        return usage_error("--service is not a number from 0 to 65535");
    if (options->vrfs && options->hosts != nullptr)
        return usage_error("--vrfs takes no HOST");
    if (options->hosts == nullptr && !options->version && !options->vrfs && isatty(STDIN_FILENO))
        return usage_error("no HOST, and standard input is a terminal");
    return true;
}

bool parse_options(int argc, char **argv, struct lookup_options *options)
{
    static struct option_texts texts;
    *options = {};
    options->service = "0";
    options->lifetime_secs = -1;
    options->times = 1;
    const GOptionEntry entries[] = {
        {"service", 's', 0, G_OPTION_ARG_STRING, &texts.service, "Port of the lookup (0)", "PORT"},
        {"vrf", 'V', 0, G_OPTION_ARG_STRING, &texts.vrf, "Resolve names in this VRF (0)", "VRF"},
        {"timeout", 't', 0, G_OPTION_ARG_STRING, &texts.timeout,
         "Wait for at most SECONDS, 1 to " SECONDS_MAX " (3)", "SECONDS"},
        {"lifetime", 'l', 0, G_OPTION_ARG_STRING, &texts.lifetime, "Keep answers for SECONDS (60)",
         "SECONDS"},
        {"times", 'n', 0, G_OPTION_ARG_STRING, &texts.times, "Look up each name TIMES times (1)", "TIMES"},
        {"no-wait", 0, 0, G_OPTION_ARG_NONE, &options->no_wait, "Do not wait for background jobs", nullptr},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &options->json, "Print one JSON object per lookup", nullptr},
        {"verbose", 'v', 0, G_OPTION_ARG_NONE, &options->verbose, "Print the trace to standard error",
         nullptr},
        {"vrfs", 0, 0, G_OPTION_ARG_NONE, &options->vrfs,
         "List the VRFs, their kinds and their resolver files", nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &options->version, "Print the version", nullptr},
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &options->hosts, nullptr, "[HOST...]"},
        {},
    };
    g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
    g_autoptr(GError) error = nullptr;
    g_option_context_set_summary(context, SUMMARY);
    g_option_context_set_description(context, DESCRIPTION);
    g_option_context_add_main_entries(context, entries, nullptr);
    if (!g_option_context_parse(context, &argc, &argv, &error))
        return usage_error(error->message);
    return check_options(&texts, options);
}
