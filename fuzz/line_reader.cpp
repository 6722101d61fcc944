/*
 * line_reader.cpp: any text as a stream of requests. What has to be read and accepted is worked out anew.
 */
#include "host/line_reader.h"

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/input.h"

static std::vector<std::string> fields_of(const std::string &line)
{
    std::vector<std::string> fields;
    bool inside = false;
    for (char c : line.substr(0, line.find('#'))) {
        const bool separates = c == ' ' || c == '\t';
        if (!separates && !inside)
            fields.emplace_back();
        inside = !separates;
        if (inside)
            fields.back() += c;
    }
    return fields;
}

static bool is_number(const std::string &text, const std::string &max)
{
    if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    const std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
    return digits.size() < max.size() || (digits.size() == max.size() && digits <= max);
}

static bool is_acceptable(const std::vector<std::string> &fields)
{
    const auto printable = [](char c) { return c > ' ' && c <= '~'; };
    return fields.size() <= 3 && fields[0].size() <= 253 &&
           std::all_of(fields[0].begin(), fields[0].end(), printable) &&
           (fields.size() < 2 || (fields[1].size() <= 5 && is_number(fields[1], "65535"))) &&
           (fields.size() < 3 || is_number(fields[2], "2147483647"));
}

static void check_fields(char *line)
{
    const std::vector<std::string> wanted = fields_of(line);
    struct line_fields fields = {.host = nullptr, .service = "default", .vrf = -1, .culprit = nullptr};
    const char *problem = split_line(line, &fields);
    REQUIRE((fields.host == nullptr) == wanted.empty());
    REQUIRE((problem == nullptr) == (wanted.empty() || is_acceptable(wanted)));
    REQUIRE((problem == nullptr) == (fields.culprit == nullptr));
    if (problem != nullptr || wanted.empty())
        return;
    REQUIRE(fields.host == wanted[0] && name_problem(fields.host) == nullptr);
    REQUIRE(fields.service == (wanted.size() > 1 ? wanted[1] : "default"));
    REQUIRE(wanted.size() < 2 || service_is_valid(fields.service));
    REQUIRE(fields.vrf == (wanted.size() > 2 ? std::stoi(wanted[2]) : -1));
}

/* Takes one line off the text. */
static void check_line(FILE *in, std::string *text)
{
    std::vector<char> line(LINE_BYTES, 'x');
    const size_t length = std::min(text->find('\n'), text->size());
    const bool has_nul = text->find('\0') < length;
    const enum line_status wanted = has_nul ? LINE_HAS_NUL : length >= LINE_BYTES ? LINE_TOO_LONG : LINE_READ;
    REQUIRE(read_line(in, line.data(), line.size()) == wanted);
    REQUIRE(line[std::min(length, LINE_BYTES - 1)] == '\0');
    REQUIRE(text->compare(0, std::min(length, LINE_BYTES - 1), line.data(),
                          std::min(length, LINE_BYTES - 1)) == 0);
    if (wanted == LINE_READ)
        check_fields(line.data());
    text->erase(0, length + 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(data, data + size);
    if (text.empty())
        return 0;
    FILE *in = fmemopen(const_cast<uint8_t *>(data), size, "r");
    REQUIRE(in != nullptr);
    while (!text.empty())
        check_line(in, &text);
    char line[LINE_BYTES];
    REQUIRE(read_line(in, line, sizeof line) == LINE_END && line[0] == '\0');
    fclose(in);
    return 0;
}
