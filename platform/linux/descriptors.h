/*
 * descriptors.h: keeps the descriptors of the platform layer apart from the standard streams.
 */
#ifndef PLATFORM_LINUX_DESCRIPTORS_H
#define PLATFORM_LINUX_DESCRIPTORS_H

/*
 * above_streams: move a descriptor above 2, close-on-exec. A host that runs without standard streams may still print
 * to descriptors 1 and 2, so the job service keeps its own descriptors out of that range.
 *
 * fd  closed if it has to be moved
 *
 * Returns the descriptor; -1 when fd is negative or no descriptor is left.
 */
int above_streams(int fd);

#endif
