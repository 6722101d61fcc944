/*
 * line_reader.h: requests from a text stream, one a line: HOST [PORT [VRF]], separated by blanks or tabs.
 * '#' starts a comment anywhere. Whatever the bytes are, a line is either understood or refused.
 */
#ifndef HOST_LINE_READER_H
#define HOST_LINE_READER_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

constexpr size_t LINE_BYTES = 1024; /* of a line buffer, the terminating zero included */
constexpr size_t NAME_LENGTH_MAX = 253;

enum line_status : int {
    LINE_READ,
    LINE_END,
    LINE_UNREADABLE, /* errno says why */
    LINE_TOO_LONG,   /* skipped to its end */
    LINE_HAS_NUL,    /* likewise */
};

/* The fields of a line; text lies in the line. */
struct line_fields {
    const char *host; /* NULL: a blank line */
    const char *service;
    int32_t vrf;
    const char *culprit; /* the field that was refused */
};

/*
 * read_line: read one line, without its line end. The last line may lack one.
 *
 * line  buffer of size bytes, at least 1; always terminated
 */
enum line_status read_line(FILE *in, char *line, size_t size);

/*
 * split_line: find and check the fields of a line.
 *
 * line    changed: the fields are terminated in place
 * fields  service and vrf hold the defaults and keep them where the line has no such field
 *
 * Returns NULL, or what is wrong with fields->culprit.
 */
const char *split_line(char *line, struct line_fields *fields);

/* name_problem: what is wrong with a host name; NULL when it can be looked up. */
const char *name_problem(const char *name);

/* service_is_valid: whether this is a port that the library's record holds uncut. */
bool service_is_valid(const char *service);

/* parse_decimal: digits only, from min to max. On false *value is untouched. */
bool parse_decimal(const char *text, int32_t min, int32_t max, int32_t *value);

#endif
