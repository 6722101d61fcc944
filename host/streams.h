/*
 * streams.h: who writes where. The library traces to standard output, which is where the answers belong; so
 * the answers move to a descriptor of their own before the library is called.
 */
#ifndef HOST_STREAMS_H
#define HOST_STREAMS_H

#include <stdio.h>

/*
 * occupy_standard_descriptors: open /dev/null on each of 0, 1 and 2 that is closed, lest a pipe or a queue
 * lands there. To be called first of all.
 *
 * has_output  out: whether standard output was open
 */
bool occupy_standard_descriptors(bool *has_output);

/*
 * divert_standard_output: keep standard output for the answers, and send what is printed to stdout to
 * standard error (trace) or nowhere. To be called before anything is printed.
 *
 * Returns the stream for the answers; NULL with errno.
 */
FILE *divert_standard_output(bool trace);

#endif
