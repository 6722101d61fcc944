/*
 * vrf_group.cpp: the control group of a device, <base>/vrf/<device>.<index>.<network namespace>, similar to the one
 * that "ip vrf exec" creates. The base is the daemon's own group, so the limits and accounting of its service cover
 * its jobs; if that group belongs to a VRF or cannot have such children, the base is an ancestor of it.
 *
 * The first job creates the group. The group is kept, since the jobs in it share its programs. The index is part of
 * its name, so that a device that is deleted and created again gets another group. The inode number of the network
 * namespace is part of it too, because every network namespace numbers its devices from 1.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/vrf_binding.h"
#include "platform/linux/vrf_device.h"

static constexpr size_t GROUP_BYTES = 4096;
static constexpr char own_group_file[] = "/proc/self/cgroup";
static constexpr char group_namespace[] = "/proc/self/ns/cgroup";
static constexpr char network_namespace[] = "/proc/self/ns/net";
static constexpr char unified_prefix[] = "0::"; /* starts the line of the unified hierarchy */

using group_name = char[VRF_NAME_BYTES + sizeof ".4294967295.18446744073709551615"];

/* Finds the process's own group, as a path from the root of the hierarchy; the root itself is "". */
static int find_own_group(char *group, size_t size)
{
    FILE *lines = fopen(own_group_file, "re");
    if (lines == nullptr)
        return vrf_failed(errno, "%s", own_group_file);
    bool found = false;
    while (!found && fgets(group, static_cast<int>(size), lines) != nullptr)
        found = strncmp(group, unified_prefix, strlen(unified_prefix)) == 0 && strchr(group, '\n') != nullptr;
    fclose(lines);
    if (!found)
        return vrf_failed(ENOENT, "own group in %s", own_group_file);
    group[strcspn(group, "\n")] = '\0';
    memmove(group, group + strlen(unified_prefix), strlen(group) + 1 - strlen(unified_prefix));
    if (strcmp(group, "/..") == 0 || strncmp(group, "/../", 4) == 0)
        return vrf_failed(EXDEV, "own control group %s is outside the root of its namespace", group);
    if (strcmp(group, "/") == 0)
        *group = '\0';
    return 0;
}

/* Shortens the path of a group to that of its parent; the root is "". */
static void cut_last_component(char *group)
{
    char *last = strrchr(group, '/');
    *(last != nullptr ? last : group) = '\0';
}

/*
 * A host that was started by "ip vrf exec" or by one of our jobs is in a group /.../vrf/NAME or below it. The
 * programs of that group bind sockets to NAME, and its child groups could not replace them, so our groups are
 * created beside it.
 */
static void cut_vrf_group(char *group)
{
    char *vrf = strstr(group, "/vrf/");
    if (vrf != nullptr)
        *vrf = '\0';
}

/*
 * Opens the unified hierarchy as this process's cgroup namespace shows it, without attaching the mount to a path:
 * the machine's own mount may be read-only, partial, covered or missing. The options of a mount that is created in
 * the initial cgroup namespace apply to the whole hierarchy: the kernel would drop "nsdelegate". So the mount is
 * created in another cgroup namespace; it still shows what the namespace that called fsopen() sees.
 */
static int open_hierarchy(int *root)
{
    const int original = open(group_namespace, O_RDONLY | O_CLOEXEC);
    const int hierarchy = fsopen("cgroup2", FSOPEN_CLOEXEC);
    const bool is_open = original >= 0 && hierarchy >= 0 && unshare(CLONE_NEWCGROUP) == 0 &&
                         fsconfig(hierarchy, FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0 &&
                         setns(original, CLONE_NEWCGROUP) == 0;
    *root = is_open ? fsmount(hierarchy, FSMOUNT_CLOEXEC,
                              MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC)
                    : -1;
    const int error = errno;
    if (original >= 0)
        close(original);
    if (hierarchy >= 0)
        close(hierarchy);
    return *root >= 0 ? 0 : vrf_failed(error, "mounting the unified hierarchy of control groups");
}

/*
 * Whether a process can join a child group of this group from outside. It cannot if the group is threaded or has
 * threaded children. For the root it can.
 */
static bool takes_children(int root, const char *group)
{
    char path[GROUP_BYTES + sizeof "/cgroup.type"], type[sizeof "domain threaded\n"];
    snprintf(path, sizeof path, "%s/cgroup.type", group + 1);
    const int fd = openat(root, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return true; /* if something is wrong with the group, opening it will fail */
    const ssize_t length = read(fd, type, sizeof type - 1);
    close(fd);
    return length < 0 || strncmp(type, "domain\n", static_cast<size_t>(length)) == 0;
}

static int open_base_below(int root, char *group, int *fd)
{
    cut_vrf_group(group);
    while (*group != '\0' && !takes_children(root, group))
        cut_last_component(group);
    *fd = openat(root, *group != '\0' ? group + 1 : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd >= 0 ? 0 : vrf_failed(errno, "control group %s/", group);
}

static int open_base(char *group, size_t size, int *fd)
{
    int root = -1;
    int error = find_own_group(group, size);
    if (error == 0)
        error = open_hierarchy(&root);
    if (error != 0)
        return error;
    error = open_base_below(root, group, fd);
    close(root);
    return error;
}

int vrf_open_base_group(int *group)
{
    char path[GROUP_BYTES];
    return open_base(path, sizeof path, group);
}

static unsigned long long own_network()
{
    struct stat status;
    return stat(network_namespace, &status) == 0 ? status.st_ino : 0;
}

/*
 * Whether the group belongs to a device of this network namespace that has been deleted or renamed. Groups of other
 * network namespaces are never stale: their devices cannot be seen from here.
 */
static bool is_stale(const char *name, unsigned long long network)
{
    char ending[sizeof ".18446744073709551615"], device[IF_NAMESIZE], *rest;
    const char *dot = strchr(name, '.');
    if (dot == nullptr)
        return false;
    const unsigned long index = strtoul(dot + 1, &rest, 10);
    snprintf(ending, sizeof ending, ".%llu", network);
    if (strcmp(rest, ending) != 0)
        return false;
    if (if_indextoname(static_cast<unsigned>(index), device) == nullptr)
        return errno == ENXIO;
    const auto length = static_cast<size_t>(dot - name);
    return strlen(device) != length || strncmp(device, name, length) != 0;
}

/* The kernel refuses to remove groups that contain jobs. */
static void remove_stale_groups(int parent, unsigned long long network)
{
    const int folder = openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *names = folder >= 0 ? fdopendir(folder) : nullptr;
    if (names == nullptr) {
        if (folder >= 0)
            close(folder);
        return;
    }
    while (const struct dirent *entry = readdir(names))
        if (is_stale(entry->d_name, network))
            unlinkat(parent, entry->d_name, AT_REMOVEDIR);
    closedir(names);
}

static int make_below(int parent, const char *name, const char *base, bool *is_new, int *fd)
{
    *is_new = mkdirat(parent, name, 0755) == 0;
    if (!*is_new && errno != EEXIST)
        return vrf_failed(errno, "making a control group %s below %s/%s", name, base,
                          errno == EACCES ? ", without write access to that" : "");
    *fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd >= 0 ? 0 : vrf_failed(errno, "control group %s below %s/", name, base);
}

static int make_group(int parent, const char *device, unsigned index, const char *base, int *group)
{
    group_name name;
    bool is_new;
    const unsigned long long network = own_network();
    if (network == 0)
        return vrf_failed(errno, "%s", network_namespace);
    snprintf(name, sizeof name, "%s.%u.%llu", device, index, network);
    const int error = make_below(parent, name, base, &is_new, group);
    if (error == 0 && is_new)
        remove_stale_groups(parent, network);
    return error;
}

int vrf_open_group(const char *device, unsigned index, int *group)
{
    char path[GROUP_BYTES];
    int base = -1, parent = -1;
    bool is_new;
    int error = open_base(path, sizeof path, &base);
    if (error != 0)
        return error;
    error = make_below(base, "vrf", path, &is_new, &parent);
    close(base);
    if (error != 0)
        return error;
    error = make_group(parent, device, index, path, group);
    close(parent);
    return error;
}

int vrf_join_group(int group)
{
    const int processes = openat(group, "cgroup.procs", O_WRONLY | O_CLOEXEC);
    const int error = processes >= 0 && write(processes, "0", 1) == 1 ? 0 : errno;
    if (processes >= 0)
        close(processes);
    const char *why = "";
    if (error == EACCES)
        why = ", without write access to the daemon's own";
    else if (error == EOPNOTSUPP)
        why = " from a threaded one";
    return error != 0 ? vrf_failed(error, "joining a control group%s", why) : 0;
}
