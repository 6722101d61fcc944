/*
 * vrf_files.cpp: the files that a VRF's resolver reads. In a mount namespace of its own the process sees the files in
 * /etc/netns/vrfN over those of the same name in /etc, and nothing in the folders where daemons have their sockets:
 * a caching daemon would answer for the network of the host.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"

struct resolver_file {
    const char *const name;
    bool is_covered = false;
    dev_t device = 0; /* of what was put over it */
    ino_t inode = 0;
};

/*
 * What decides how a name is resolved. If a VRF has one of these, it is put in place or binding fails. Of its other
 * files those that /etc lacks are left out: nothing is there that could be read in their stead.
 */
static resolver_file resolver_files[] = {{"gai.conf"},      {"host.conf"},   {"hosts"},   {"networks"},
                                         {"nsswitch.conf"}, {"resolv.conf"}, {"services"}};

/* Of a file in the folder of a VRF. */
using path_text = char[sizeof LINUX_VRF_FILES + VRF_NAME_BYTES + NAME_MAX + 2];

static constexpr const char *socket_folders[] = {"/run", "/var/run", "/var/lib/sss/pipes"};

static bool is_resolver_file(const char *name)
{
    for (const resolver_file &file : resolver_files)
        if (strcmp(file.name, name) == 0)
            return true;
    return false;
}

static bool exists(const char *path)
{
    struct stat status; /* of a symbolic link itself, wherever that leads */
    return lstat(path, &status) == 0 || errno != ENOENT;
}

static bool is_in_place(const resolver_file *file)
{
    path_text path;
    struct stat status;
    snprintf(path, sizeof path, "/etc/%s", file->name);
    return !file->is_covered ||
           (stat(path, &status) == 0 && status.st_dev == file->device && status.st_ino == file->inode);
}

/* A detached copy of what lies at a path, to be put elsewhere; -1 with errno. */
static int take(const char *path, struct stat *status)
{
    const int tree = open_tree(AT_FDCWD, path, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
    if (tree >= 0)
        fstat(tree, status);
    return tree;
}

/* A file goes over a symbolic link itself: what that leads to may be missing, or about to be hidden. */
static bool put_over(int tree, const struct stat *status, const char *path)
{
    const unsigned follow = S_ISDIR(status->st_mode) ? MOVE_MOUNT_T_SYMLINKS : 0;
    return move_mount(tree, "", AT_FDCWD, path, MOVE_MOUNT_F_EMPTY_PATH | follow) == 0;
}

static int cover(resolver_file *file, const char *own, const char *path)
{
    struct stat status = {};
    const int tree = take(own, &status);
    if (tree < 0)
        return vrf_failed(errno, "%s", own);
    /* Never closed: a file that is held keeps its inode number, so that no other can pass for it. */
    if (!S_ISREG(status.st_mode))
        return vrf_failed(EINVAL, "%s, which is no regular file", own);
    if (!put_over(tree, &status, path))
        return vrf_failed(errno, "%s over %s", own, path);
    file->is_covered = true;
    file->device = status.st_dev;
    file->inode = status.st_ino;
    return is_in_place(file) ? 0 : vrf_failed(EBUSY, "%s over %s", own, path);
}

/* The host's own file, where the VRF has none, stays also if it is a link into a folder which is about to be hidden. */
static int keep_linked(resolver_file *file, const char *path)
{
    struct stat status;
    if (lstat(path, &status) != 0 || !S_ISLNK(status.st_mode) || stat(path, &status) != 0 ||
        !S_ISREG(status.st_mode))
        return 0;
    return cover(file, path, path);
}

static int cover_resolver_files(const char *folder)
{
    for (resolver_file &file : resolver_files) {
        path_text own, path;
        snprintf(own, sizeof own, "%s/%s", folder, file.name);
        snprintf(path, sizeof path, "/etc/%s", file.name);
        const int error = exists(own) ? cover(&file, own, path) : keep_linked(&file, path);
        if (error != 0)
            return error;
    }
    return 0;
}

/* A file that has vanished since its name was read, as the temporary ones of editors do, is left out too. */
static int cover_other_file(const char *own, const char *path)
{
    struct stat status = {};
    const int tree = take(own, &status);
    if (tree < 0)
        return errno == ENOENT ? 0 : vrf_failed(errno, "%s", own);
    const int error = put_over(tree, &status, path) || errno == ENOENT ? 0 : errno;
    close(tree);
    return error != 0 ? vrf_failed(error, "%s over %s", own, path) : 0;
}

static int cover_if_other_file(const char *folder, const char *name)
{
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || is_resolver_file(name))
        return 0;
    path_text own, path;
    snprintf(own, sizeof own, "%s/%s", folder, name);
    snprintf(path, sizeof path, "/etc/%s", name);
    return cover_other_file(own, path);
}

/* Not by opendir(): to take its 32 KiB from a heap that is shared costs a fresh child as much as all mounts do. */
static int cover_other_files(const char *folder)
{
    const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return exists(folder) ? vrf_failed(errno, "%s", folder) : 0;
    int error = 0;
    ssize_t got = 0;
    alignas(struct dirent64) char entries[2048];
    while (error == 0 && (got = getdents64(fd, entries, sizeof entries)) > 0) {
        const struct dirent64 *entry;
        for (ssize_t at = 0; error == 0 && at < got; at += entry->d_reclen) {
            entry = reinterpret_cast<const struct dirent64 *>(entries + at);
            error = cover_if_other_file(folder, entry->d_name);
        }
    }
    if (got < 0)
        error = vrf_failed(errno, "%s", folder);
    close(fd);
    return error;
}

static int hide_sockets()
{
    dev_t hidden = 0;
    for (const char *folder : socket_folders) {
        struct stat status;
        const bool is_found = stat(folder, &status) == 0;
        if (is_found && status.st_dev == hidden) /* a link to the one before */
            continue;
        if (mount("none", folder, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0755") == 0)
            hidden = stat(folder, &status) == 0 ? status.st_dev : 0;
        else if (errno != ENOENT)
            return vrf_failed(errno, "hiding %s", folder);
    }
    return 0;
}

int vrf_enter_files(const char *vrf_name)
{
    char folder[sizeof LINUX_VRF_FILES "/" + VRF_NAME_BYTES];
    snprintf(folder, sizeof folder, LINUX_VRF_FILES "/%s", vrf_name);
    /* The host's own mounts and unmounts still arrive, lest a job keep a file system busy; ours stay here. */
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
        return vrf_failed(errno, "a file system view for %s", vrf_name);
    int error = cover_resolver_files(folder);
    if (error == 0)
        error = cover_other_files(folder);
    return error != 0 ? error : hide_sockets();
}

/* A file of /etc that the host replaces, in its own view, takes what lies over it away here. */
bool vrf_files_are_in_place()
{
    for (const resolver_file &file : resolver_files)
        if (!is_in_place(&file))
            return false;
    return true;
}
