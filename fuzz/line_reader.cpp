/*
 * line_reader.cpp: arbitrary text as a stream of requests.
 */
#include "host/line_reader.h"

#include <stdlib.h>

#include <string>

#include "fuzz/fuzz.h"

static void check_fields(char *line)
{
    struct line_fields fields = {.host = nullptr, .service = "123", .vrf = 7, .culprit = nullptr};
    const bool accepted = split_line(line, &fields) == nullptr;
    REQUIRE(accepted == (fields.culprit == nullptr));
    const std::string host = accepted && fields.host != nullptr ? fields.host : "";
    REQUIRE(host.size() <= 253 &&
            std::all_of(host.begin(), host.end(), [](char c) { return c > ' ' && c <= '~'; }));
    REQUIRE(strlen(fields.service) <= 5 && atoi(fields.service) <= 65535 && fields.vrf >= 0);
}

static void run_input(bytes_view input)
{
    std::vector<char> line(LINE_BYTES);
    /* A read error in a line */
    FILE *in = fopencookie(nullptr, "r", {.read = [](void *, char *, size_t) { return ssize_t{-1}; }});
    REQUIRE(in != nullptr && ungetc('x', in) == 'x');
    REQUIRE(read_line(in, line.data(), line.size()) == LINE_UNREADABLE);
    fclose(in);

    std::string text(input.begin(), input.end());
    in = fmemopen(text.data(), text.size(), "r");
    REQUIRE(in != nullptr);
    for (size_t at = 0; at < text.size();) {
        const std::string wanted = text.substr(at, std::min(text.find('\n', at), text.size()) - at);
        const enum line_status status = wanted.find('\0') < wanted.size() ? LINE_HAS_NUL
                                        : wanted.size() >= LINE_BYTES     ? LINE_TOO_LONG
                                                                          : LINE_READ;
        std::fill(line.begin(), line.end(), 'x');
        REQUIRE(read_line(in, line.data(), line.size()) == status);
        const size_t kept = std::min(wanted.size(), LINE_BYTES - 1);
        REQUIRE(wanted.compare(0, kept, line.data(), kept) == 0 && line[kept] == '\0');
        if (status == LINE_READ)
            check_fields(line.data());
        at += wanted.size() + 1;
    }
    REQUIRE(read_line(in, line.data(), line.size()) == LINE_END && line[0] == '\0');
    fclose(in);
}
