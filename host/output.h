/*
 * output.h: prints answers as text or JSON, and makes text safe for a terminal.
 */
#ifndef HOST_OUTPUT_H
#define HOST_OUTPUT_H

#include <json-glib/json-glib.h>
#include <stdio.h>

#include "host/resolve.h"

/* print_plain: print one line per address: address, socket type, name. */
void print_plain(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome);

/* print_json: print one object on its own line, whether the lookup was answered or not. */
void print_json(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome);

/* print_json_document: print what has been built, on its own line. */
void print_json_document(FILE *out, JsonBuilder *json);

/* printable_text: return a copy with backslash escapes for all but printable ASCII. The caller frees it. */
char *printable_text(const char *text);

/* printable_name: the same as printable_text, but a long name is cut to fit a message. */
char *printable_name(const char *name);

#endif
