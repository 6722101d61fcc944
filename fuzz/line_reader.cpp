/*
 * line_reader.cpp: arbitrary text as a stream of requests. A second implementation says what is read and accepted.
 */
#include "host/line_reader.h"

#include <stdlib.h>

#include <regex>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"

enum { HOST = 2, SERVICE = 4, VRF = 6 }; /* parts of the syntax */

static void check_fields(char *text)
{
    /* Without the upper limits of numbers */
    static const std::regex syntax(
        "[ \t]*(([!-\"$-~]{1,253})([ \t]+([0-9]{1,5})([ \t]+([0-9]+))?)?[ \t]*)?(#[^\n]*)?");
    const std::string line = text;
    std::smatch parts;
    const bool matches = std::regex_match(line, parts, syntax);
    struct line_fields fields = {.host = nullptr, .service = "123", .vrf = 7, .culprit = nullptr};
    const bool accepted = split_line(text, &fields) == nullptr;
    REQUIRE(accepted == (fields.culprit == nullptr));
    const std::string service = parts[SERVICE].matched ? parts[SERVICE].str() : "123";
    const std::string vrf = parts[VRF].matched ? parts[VRF].str() : "7";
    REQUIRE(accepted == (matches && atoi(service.c_str()) <= 65535 && atoll(vrf.c_str()) <= INT32_MAX));
    if (accepted) {
        REQUIRE(parts[HOST] == (fields.host != nullptr ? fields.host : ""));
        REQUIRE(service == fields.service && fields.vrf == atoi(vrf.c_str()));
    }
}

void run_input(bytes_view input)
{
    std::string text(input.begin(), input.end());
    FILE *in = fmemopen(text.data(), text.size(), "r");
    REQUIRE(in != nullptr);
    std::vector<char> line(LINE_BYTES);
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
