/*
 * exit_code.h: the exit status of dnscache-lookup. The worst of all lookups decides it; a larger number is worse.
 */
#ifndef HOST_EXIT_CODE_H
#define HOST_EXIT_CODE_H

enum exit_code : int {
    LOOKUP_RESOLVED = 0,
    LOOKUP_USAGE = 1,
    LOOKUP_UNRESOLVED = 2, /* the name has no answer, or is not a valid name */
    LOOKUP_UNFINISHED = 3, /* trying again may help */
    LOOKUP_FAILED = 4,     /* anything else */
    LOOKUP_NO_VRF = 5,     /* a VRF that no job can be bound to */
};

#endif
