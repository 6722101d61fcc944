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
    std::string text(input.begin(), input.end());
    FILE *in = fmemopen(text.data(), text.size(), "r");
    REQUIRE(in != nullptr);
    std::vector<char> line(LINE_BYTES + 1); /* The reader must not write its last byte. */
    for (enum line_status status = LINE_READ; status != LINE_END;) {
        std::fill(line.begin(), line.end(), 'x');
        status = read_line(in, line.data(), LINE_BYTES);
        REQUIRE(strnlen(line.data(), LINE_BYTES) < LINE_BYTES && line.back() == 'x');
        REQUIRE(text.find(line.data()) != std::string::npos);
        if (status == LINE_READ)
            check_fields(line.data());
    }
    fclose(in);
}
