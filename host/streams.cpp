/*
 * streams.cpp: opens and redirects the standard descriptors at start-up.
 */
#include "host/streams.h"

#include <fcntl.h>
#include <unistd.h>

bool occupy_standard_descriptors(bool *has_output)
{
    *has_output = fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    int fd;
    /* Write-only, so that reading from a standard input that was closed still fails. */
    do
        fd = open("/dev/null", O_WRONLY);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

static bool redirect_stdout(bool trace)
{
    if (trace)
        return dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 && setvbuf(stdout, nullptr, _IOLBF, 0) == 0;
    const int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (sink < 0)
        return false;
    const bool redirected = dup2(sink, STDOUT_FILENO) >= 0;
    close(sink);
    return redirected;
}

FILE *divert_standard_output(bool trace)
{
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (kept < 0)
        return nullptr;
    FILE *answers = fdopen(kept, "w");
    if (answers == nullptr) {
        close(kept);
        return nullptr;
    }
    if (!redirect_stdout(trace)) {
        fclose(answers);
        return nullptr;
    }
    return answers;
}
