/*
 * vrf_files.cpp: the files that the resolver of a VRF reads. The process gets its own mount namespace. In it, the
 * files of /etc/netns/vrfN are mounted over those of the same name in /etc, and the folders where daemons keep
 * their sockets are empty, because a caching daemon would answer for the network of the host.
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
    dev_t device = 0; /* device and inode identify the file that was mounted over it */
    ino_t inode = 0;
};

/*
 * The files that decide how a name is resolved. If a VRF has one of these and it cannot be mounted, binding fails.
 * Any other file of the VRF is skipped if /etc has no file of that name: then there is no file of the host that the
 * resolver could read instead.
 */
static resolver_file resolver_files[] = {{"gai.conf"},      {"host.conf"},   {"hosts"},   {"networks"},
                                         {"nsswitch.conf"}, {"resolv.conf"}, {"services"}};

/* Holds the path of any file in the folder of a VRF. */
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
    struct stat status; /* of a symbolic link itself: it exists even if its target does not */
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

/* Returns a detached mount of what is at the path, which mount_over() attaches elsewhere; -1 with errno. */
static int clone_mount(const char *path, struct stat *status)
{
    const int tree = open_tree(AT_FDCWD, path, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
    if (tree >= 0)
        fstat(tree, status);
    return tree;
}

/* A file is mounted over a symbolic link itself, not over its target, which may be missing or about to be hidden. */
static bool mount_over(int tree, const struct stat *status, const char *path)
{
    const unsigned follow = S_ISDIR(status->st_mode) ? MOVE_MOUNT_T_SYMLINKS : 0;
    return move_mount(tree, "", AT_FDCWD, path, MOVE_MOUNT_F_EMPTY_PATH | follow) == 0;
}

static int cover(resolver_file *file, const char *own, const char *path)
{
    struct stat status = {};
    const int tree = clone_mount(own, &status);
    if (tree < 0)
        return vrf_failed(errno, "%s", own);
    /* tree is never closed: while a file is open, its inode number is not reused, so is_in_place() accepts no other. */
    if (!S_ISREG(status.st_mode))
        return vrf_failed(EINVAL, "%s, which is no regular file", own);
    if (!mount_over(tree, &status, path))
        return vrf_failed(errno, "%s over %s", own, path);
    file->is_covered = true;
    file->device = status.st_dev;
    file->inode = status.st_ino;
    return is_in_place(file) ? 0 : vrf_failed(EBUSY, "%s over %s", own, path);
}

/* Keeps a host's file that the VRF lacks readable, even if it is a link into a folder that hide_sockets() hides. */
static int keep_link_readable(resolver_file *file, const char *path)
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
        const int error = exists(own) ? cover(&file, own, path) : keep_link_readable(&file, path);
        if (error != 0)
            return error;
    }
    return 0;
}

/* Skips a file that /etc lacks, or that was deleted after its name was read, such as an editor's temporary file. */
static int cover_other_file(const char *own, const char *path)
{
    struct stat status = {};
    const int tree = clone_mount(own, &status);
    if (tree < 0)
        return errno == ENOENT ? 0 : vrf_failed(errno, "%s", own);
    const int error = mount_over(tree, &status, path) || errno == ENOENT ? 0 : errno;
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

/*
 * Avoids opendir(), which allocates 32 KiB: a new child still shares its heap with the parent, so that allocation
 * costs as much as all the mounts.
 */
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
        if (is_found && status.st_dev == hidden) /* a link to the previous folder */
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
    /*
     * MS_SLAVE: the host's mounts and unmounts still take effect here, so that a job does not keep a file system
     * busy, but the mounts of a job do not take effect in the host.
     */
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
        return vrf_failed(errno, "a file system view for %s", vrf_name);
    int error = cover_resolver_files(folder);
    if (error == 0)
        error = cover_other_files(folder);
    return error != 0 ? error : hide_sockets();
}

/* If the host replaces a file of /etc in its own mount namespace, the kernel removes what is mounted over it here. */
bool vrf_files_are_in_place()
{
    for (const resolver_file &file : resolver_files)
        if (!is_in_place(&file))
            return false;
    return true;
}
