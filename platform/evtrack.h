/*
 * evtrack.h: where trace messages go on this platform: the event history and the debug channel. The library calls
 * these functions for every message, in children too. None of them may block.
 */
#ifndef PLATFORM_EVTRACK_H
#define PLATFORM_EVTRACK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* evtrack_hist_event_subtype_check: return 0 if the event history records this class and subtype. */
int evtrack_hist_event_subtype_check(uint32_t event_class, uint32_t subtype);

/* evtrack_hist_event: append a record of length bytes that begins with the 4-byte subtype. The result is ignored. */
int evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record);

/* evtrack_chk_int: return nonzero if this debug flag is on. The library passes (flag, 0, 0, 1). */
int evtrack_chk_int(int flag, int unused_1, int unused_2, int one);

/* The name of the process on the debug channel. The library only passes its address to dbgemit(). */
typedef struct {
    char name[32];
} evtrack_modname;
extern evtrack_modname evtrack_dbg_modname;

/* dbgemit: print on the debug channel. The library passes (1, &evtrack_dbg_modname, 0, format, ...). */
int dbgemit(int one, const void *modname, int zero, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
