/*
 * exit_code.h: what the exit status of dnscache-lookup says. The worst of all lookups wins, and the larger
 * number is the worse.
 */
#ifndef HOST_EXIT_CODE_H
#define HOST_EXIT_CODE_H

enum exit_code : int {
    LOOKUP_RESOLVED = 0,
    LOOKUP_USAGE = 1,
    LOOKUP_UNRESOLVED = 2, /* the name has no answer, or is no name at all */
    LOOKUP_UNFINISHED = 3, /* worth trying again */
    LOOKUP_FAILED = 4,     /* anything else */
    LOOKUP_NO_VRF = 5,     /* a VRF that no job can be bound to */
};

#endif
