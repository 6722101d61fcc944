/*
 * streams.h: prepares the standard streams. The library prints its trace to standard output, where the answers of
 * the program belong. So the answers get their own descriptor before the library is called.
 */
#ifndef HOST_STREAMS_H
#define HOST_STREAMS_H

#include <stdio.h>

/*
 * occupy_standard_descriptors: open /dev/null on each of the descriptors 0, 1 and 2 that is closed, so that no pipe
 * or queue gets one of these numbers. Call it before anything else.
 *
 * has_output  out: whether standard output was open
 *
 * Returns false with errno if /dev/null could not be opened.
 */
bool occupy_standard_descriptors(bool *has_output);

/*
 * divert_standard_output: keep standard output for the answers, and redirect what is printed to stdout to standard
 * error (if trace is true) or to /dev/null. Call it before anything is printed.
 *
 * Returns the stream for the answers; NULL with errno.
 */
FILE *divert_standard_output(bool trace);

#endif
