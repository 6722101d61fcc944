/*
 * output.h: answers as text or JSON, and text that is safe on a terminal.
 */
#ifndef HOST_OUTPUT_H
#define HOST_OUTPUT_H

#include <json-glib/json-glib.h>
#include <stdio.h>

#include "host/resolve.h"

/* print_plain: one line an address: address, socket type, name. */
void print_plain(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome);

/* print_json: one object on a line of its own, answered or not. */
void print_json(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome);

/* print_json_document: what has been built, on a line of its own. */
void print_json_document(FILE *out, JsonBuilder *json);

/* printable_text: a copy, to be freed, with backslash escapes for all that is not printable ASCII. */
char *printable_text(const char *text);

/* printable_name: likewise, and cut to fit a message. */
char *printable_name(const char *name);

#endif
