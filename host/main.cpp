/*
 * main.cpp: dnscache-lookup, a command-line host of the resolver cache: it starts up, handles the requests in turn,
 * and returns the exit status.
 */
#include <errno.h>
#include <locale.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "host/exit_code.h"
#include "host/line_reader.h"
#include "host/options.h"
#include "host/output.h"
#include "host/resolve.h"
#include "host/streams.h"
#include "host/vrfs.h"

struct session {
    struct lookup_options options;
    struct job_waiter waiter;
    enum wait_mode wait;
    bool notice;
    FILE *answers;
    int32_t bound_vrf; /* the last VRF that passed explain_vrf() */
    enum exit_code worst;
};

static void note(struct session *run, enum exit_code code)
{
    if (code > run->worst)
        run->worst = code;
}

static void report_failure(struct session *run, const char *what)
{
    fprintf(stderr, "dnscache-lookup: %s: %s\n", what, strerror(errno));
    note(run, LOOKUP_FAILED);
}

static void refuse(struct session *run, const char *where, const char *culprit, const char *problem)
{
    g_autofree char *shown = printable_name(culprit);
    fprintf(stderr, "dnscache-lookup: %s\"%s\": %s\n", where, shown, problem);
    note(run, LOOKUP_UNRESOLVED);
}

/* The buffer must be empty at every fork: a child inherits a copy of it. */
static bool flush_answers(struct session *run)
{
    if (fflush(run->answers) == 0 && !ferror(run->answers))
        return true;
    report_failure(run, "cannot write to standard output");
    return false;
}

static bool check_vrf(struct session *run, int32_t vrf)
{
    if (vrf == 0 || vrf == run->bound_vrf)
        return true;
    g_autofree char *problem = explain_vrf(vrf);
    if (problem == nullptr) {
        run->bound_vrf = vrf;
        return true;
    }
    fprintf(stderr, "dnscache-lookup: cannot bind to VRF %d: %s\n", vrf, problem);
    note(run, LOOKUP_NO_VRF);
    return false;
}

/* Returns false when the program cannot go on. */
static bool answer(struct session *run, const struct lookup_request *request)
{
    if (!check_vrf(run, request->vrf))
        return true;
    for (int32_t i = 0; i < run->options.times; i++) {
        struct lookup_outcome outcome = resolve(&run->waiter, request, run->wait, run->notice);
        if (run->options.json)
            print_json(run->answers, request, &outcome);
        else
            print_plain(run->answers, request, &outcome);
        freeaddrinfo(outcome.addresses);
        if (outcome.problem != nullptr)
            fprintf(stderr, "dnscache-lookup: %s: %s\n", request->host, outcome.problem);
        note(run, outcome.code);
        if (!flush_answers(run))
            return false;
    }
    return true;
}

static void answer_hosts(struct session *run)
{
    for (char **host = run->options.hosts; *host != nullptr; host++) {
        const struct lookup_request request = {*host, run->options.service, run->options.vrf};
        const char *problem = name_problem(*host);
        if (problem != nullptr)
            refuse(run, "", *host, problem);
        else if (!answer(run, &request))
            return;
    }
}

static bool answer_line(struct session *run, char *line, const char *where)
{
    struct line_fields fields = {nullptr, run->options.service, run->options.vrf, nullptr};
    const char *problem = split_line(line, &fields);
    if (problem != nullptr) {
        refuse(run, where, fields.culprit, problem);
        return true;
    }
    if (fields.host == nullptr)
        return true;
    const struct lookup_request request = {fields.host, fields.service, fields.vrf};
    return answer(run, &request);
}

static void answer_lines(struct session *run)
{
    char line[LINE_BYTES];
    char where[sizeof "standard input line 18446744073709551615: "];
    for (unsigned long number = 1;; number++) {
        g_snprintf(where, sizeof where, "standard input line %lu: ", number);
        switch (read_line(stdin, line, sizeof line)) {
        case LINE_READ:
            if (!answer_line(run, line, where))
                return;
            break;
        case LINE_TOO_LONG:
            refuse(run, where, line, "the line is too long");
            break;
        case LINE_HAS_NUL:
            refuse(run, where, line, "the line goes on after a NUL byte");
            break;
        case LINE_UNREADABLE:
            report_failure(run, "standard input");
            return;
        case LINE_END:
            return;
        }
    }
}

static void answer_all(struct session *run)
{
    if (!job_waiter_open(&run->waiter, run->options.timeout_secs, run->options.lifetime_secs)) {
        report_failure(run, "cannot make a completion queue");
        return;
    }
    /* With --verbose the trace already shows the progress, and the line of the notice would garble it. */
    run->notice = !run->options.verbose && isatty(STDERR_FILENO);
    run->wait = run->options.no_wait ? WAIT_NOT : WAIT_FOR_JOB;
    if (run->options.hosts != nullptr)
        answer_hosts(run);
    else
        answer_lines(run);
}

static void list_vrfs(struct session *run)
{
    if (print_vrfs(run->answers, run->options.json ? VRFS_AS_JSON : VRFS_AS_TEXT))
        flush_answers(run);
    else
        report_failure(run, "cannot list the VRFs");
}

/* Some file systems report a full disk only when the file is closed. */
static void close_answers(struct session *run)
{
    if (fclose(run->answers) != 0)
        report_failure(run, "cannot write to standard output");
}

int main(int argc, char **argv)
{
    static struct session run;
    bool has_output;
    if (!occupy_standard_descriptors(&has_output))
        return LOOKUP_FAILED;
    setlocale(LC_CTYPE, ""); /* GLib puts an ellipsis into the help text */
    if (!parse_options(argc, argv, &run.options))
        return LOOKUP_USAGE;
    errno = EBADF;
    run.answers = has_output ? divert_standard_output(run.options.verbose) : nullptr;
    if (run.answers == nullptr) {
        report_failure(&run, "cannot write to standard output");
        return run.worst;
    }
    if (run.options.version) {
        fputs("dnscache-lookup " DNSCACHE_VERSION "\n", run.answers);
        flush_answers(&run);
    } else if (run.options.vrfs) {
        list_vrfs(&run);
    } else {
        answer_all(&run);
    }
    close_answers(&run);
    return run.worst;
}
