/*
 * line_reader.h: reads requests from a text stream, one per line: HOST [PORT [VRF]], separated by blanks or tabs.
 * '#' starts a comment anywhere. The stream may contain any bytes: each line is either accepted or rejected.
 */
#ifndef HOST_LINE_READER_H
#define HOST_LINE_READER_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

constexpr size_t LINE_BYTES = 1024; /* size of a line buffer, including the terminating NUL */
constexpr size_t NAME_LENGTH_MAX = 253;

enum line_status : int {
    LINE_READ,
    LINE_END,
    LINE_UNREADABLE, /* read error; errno says why */
    LINE_TOO_LONG,   /* the line does not fit; the rest of it was read and dropped */
    LINE_HAS_NUL,    /* the line was read to its end, and contains a NUL byte */
};

/* The fields of a line. The strings lie in the line buffer. */
struct line_fields {
    const char *host; /* NULL: a blank line */
    const char *service;
    int32_t vrf;
    const char *culprit; /* the field that was rejected, or NULL */
};

/*
 * read_line: read one line, without its newline. The last line may lack a newline.
 *
 * line  buffer of size bytes, at least 1; always NUL-terminated
 */
enum line_status read_line(FILE *in, char *line, size_t size);

/*
 * split_line: find and check the fields of a line.
 *
 * line    modified: each field is NUL-terminated in place
 * fields  in: service and vrf hold the defaults. out: a default is kept if the line does not have that field
 *
 * Returns NULL if the line is correct, otherwise a text that says what is wrong with fields->culprit.
 */
const char *split_line(char *line, struct line_fields *fields);

/* name_problem: return what is wrong with a host name; NULL if it can be looked up. */
const char *name_problem(const char *name);

/* service_is_valid: whether this is a port number that fits into the library's record without truncation. */
bool service_is_valid(const char *service);

/* parse_decimal: parse a number from min to max, written in digits only. If it returns false, *value is unchanged. */
bool parse_decimal(const char *text, int32_t min, int32_t max, int32_t *value);

#endif
