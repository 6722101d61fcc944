/*
 * line_reader.cpp: reads lines of limited length and splits them into fields. It does not depend on the rest of
 * the program, so that tests can feed it any input.
 */
#include "host/line_reader.h"

#include <string.h>

static constexpr char FIELD_SEPARATORS[] = " \t";
static constexpr size_t PORT_DIGITS_MAX = 5;
static constexpr int32_t PORT_MAX = 65535;

enum line_status read_line(FILE *in, char *line, size_t size)
{
    enum line_status status = LINE_READ;
    size_t length = 0;
    int byte = getc(in);
    if (byte == EOF)
        status = ferror(in) ? LINE_UNREADABLE : LINE_END;
    for (; byte != EOF && byte != '\n'; byte = getc(in)) {
        if (length + 1 < size)
            line[length++] = static_cast<char>(byte);
        else if (status == LINE_READ)
            status = LINE_TOO_LONG;
        if (byte == '\0')
            status = LINE_HAS_NUL;
    }
    line[length] = '\0';
    /* A line that a read error cuts off could name another host: do not return it. */
    return byte == EOF && ferror(in) ? LINE_UNREADABLE : status;
}

const char *name_problem(const char *name)
{
    if (*name == '\0')
        return "the name is empty";
    if (strlen(name) > NAME_LENGTH_MAX)
        return "the name is longer than 253 characters";
    for (; *name != '\0'; name++)
        if (*name < 0x21 || *name > 0x7e)
            return "the name has a character that is not printable ASCII";
    return nullptr;
}

bool parse_decimal(const char *text, int32_t min, int32_t max, int32_t *value)
{
    int64_t number = 0;
    if (*text == '\0')
        return false;
    for (; *text != '\0'; text++) {
        if (*text < '0' || *text > '9')
            return false;
        number = number * 10 + (*text - '0');
        if (number > max)
            return false;
    }
    if (number < min)
        return false;
    *value = static_cast<int32_t>(number);
    return true;
}

bool service_is_valid(const char *service)
{
    int32_t port;
    return strlen(service) <= PORT_DIGITS_MAX && parse_decimal(service, 0, PORT_MAX, &port);
}

static const char *check_fields(const char *service, const char *vrf, const char *excess,
                                struct line_fields *fields)
{
    if (excess != nullptr) {
        fields->culprit = excess;
        return "more than HOST PORT VRF";
    }
    fields->culprit = fields->host;
    const char *problem = name_problem(fields->host);
    if (problem != nullptr)
        return problem;
    if (service != nullptr && !service_is_valid(service)) {
        fields->culprit = service;
        return "the port is not a number from 0 to 65535";
    }
    if (vrf != nullptr && !parse_decimal(vrf, 0, INT32_MAX, &fields->vrf)) {
        fields->culprit = vrf;
        return "the VRF is not a number from 0 to 2147483647";
    }
    if (service != nullptr)
        fields->service = service;
    fields->culprit = nullptr;
    return nullptr;
}

const char *split_line(char *line, struct line_fields *fields)
{
    char *rest = nullptr;
    line[strcspn(line, "#")] = '\0';
    fields->culprit = nullptr;
    fields->host = strtok_r(line, FIELD_SEPARATORS, &rest);
    if (fields->host == nullptr)
        return nullptr;
    const char *service = strtok_r(nullptr, FIELD_SEPARATORS, &rest);
    const char *vrf = strtok_r(nullptr, FIELD_SEPARATORS, &rest);
    const char *excess = strtok_r(nullptr, FIELD_SEPARATORS, &rest);
    return check_fields(service, vrf, excess, fields);
}
