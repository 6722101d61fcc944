/*
 * line_reader.cpp: arbitrary text as a stream of requests. A second implementation says what is read and accepted.
 */
#include "host/line_reader.h"

#include <regex.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/input.h"

/* The syntax of a request. It does not check the upper limits of numbers. */
static constexpr char request[] =
    "^[ \t]*(([!-\"$-~]{1,253})([ \t]+([0-9]{1,5})([ \t]+([0-9]+))?)?[ \t]*)?(#.*)?$";
enum { HOST = 2, SERVICE = 4, VRF = 6, PARTS };

static std::string part_of(const std::string &line, const regmatch_t &part, const char *missing)
{
    const auto begin = static_cast<size_t>(part.rm_so);
    return part.rm_so < 0 ? missing : line.substr(begin, static_cast<size_t>(part.rm_eo) - begin);
}

static void check_fields(char *text)
{
    static regex_t pattern;
    static const int compiled = regcomp(&pattern, request, REG_EXTENDED);
    REQUIRE(compiled == 0);
    const std::string line = text;
    regmatch_t parts[PARTS];
    const bool matches = regexec(&pattern, text, PARTS, parts, 0) == 0;
    struct line_fields fields = {.host = nullptr, .service = "123", .vrf = 7, .culprit = nullptr};
    const bool accepted = split_line(text, &fields) == nullptr;
    REQUIRE(accepted == (fields.culprit == nullptr));
    if (!matches) {
        REQUIRE(!accepted);
        return;
    }
    const std::string service = part_of(line, parts[SERVICE], "123"), vrf = part_of(line, parts[VRF], "7");
    REQUIRE(accepted == (atoi(service.c_str()) <= 65535 && strtoll(vrf.c_str(), nullptr, 10) <= INT32_MAX));
    REQUIRE(part_of(line, parts[HOST], "") == (fields.host != nullptr ? fields.host : ""));
    if (accepted && fields.host != nullptr) {
        REQUIRE(name_problem(fields.host) == nullptr);
        REQUIRE(service == fields.service && service_is_valid(fields.service));
        REQUIRE(fields.vrf == atoi(vrf.c_str()));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(data, data + size);
    FILE *in = fmemopen(const_cast<uint8_t *>(data), size, "r");
    REQUIRE(in != nullptr);
    std::vector<char> line(LINE_BYTES);
    for (size_t at = 0; at < size;) {
        const std::string wanted = text.substr(at, std::min(text.find('\n', at), size) - at);
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
    return 0;
}
