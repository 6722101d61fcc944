/*
 * descriptors.cpp: keeps the descriptors of the platform layer apart from the standard streams.
 */
#include "platform/linux/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

int above_streams(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}
