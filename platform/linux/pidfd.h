/*
 * pidfd.h: pidfd_open() and pidfd_send_signal(). In older C libraries their header lacks extern "C".
 */
#ifndef PLATFORM_LINUX_PIDFD_H
#define PLATFORM_LINUX_PIDFD_H

extern "C" {
#include <sys/pidfd.h>
}

#endif
