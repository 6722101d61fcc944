/*
 * vrf_device.cpp: a VRF that is a device of the host's own namespace. A control group whose program binds each new
 * socket to the device, before anybody can use it, is the way to bind a resolver that knows nothing of VRFs.
 *
 * The group is <own group>/vrf/<device>.<index>, much as "ip vrf exec" makes it. It is made once and stays. The index is
 * part of its name since the jobs in it share its program: of a device that is made anew it has another.
 */
#include <errno.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/vrf_binding.h"

static constexpr size_t GROUP_BYTES = 4096;
static constexpr unsigned NO_DEVICE = 0;
static constexpr char own_group_file[] = "/proc/self/cgroup";
static constexpr char mounts_file[] = "/proc/self/mountinfo";
static constexpr char unified_prefix[] = "0::"; /* of its line on the unified hierarchy */

/*
 * A host that was itself started by "ip vrf exec" sits in the group /.../vrf/NAME, whose program its children could
 * not replace: theirs is made beside it.
 */
static void cut_vrf_group(char *group)
{
    constexpr char parent[] = "/vrf";
    constexpr size_t length = sizeof parent - 1;
    char *last = strrchr(group, '/');
    if (last != nullptr && static_cast<size_t>(last - group) >= length &&
        strncmp(last - length, parent, length) == 0)
        last[-static_cast<ptrdiff_t>(length)] = '\0';
    else if (strcmp(group, "/") == 0)
        *group = '\0';
}

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
    cut_vrf_group(group);
    return 0;
}

/* Where the whole hierarchy is mounted, from a line about a mount; false when that is about something else. */
static bool parse_mount(const char *line, char *root, char *point)
{
    static_assert(GROUP_BYTES == 4096); /* one more than below */
    return strstr(line, " - cgroup2 ") != nullptr &&
           sscanf(line, "%*d %*d %*s %4095s %4095s", root, point) == 2 && strcmp(root, "/") == 0;
}

/* One that lies under another mount does not show our own group. */
static int find_group_folder(const char *group, char *folder, size_t size)
{
    FILE *mounts = fopen(mounts_file, "re");
    if (mounts == nullptr)
        return vrf_failed(errno, "%s", mounts_file);
    bool found = false;
    char line[4 * GROUP_BYTES], root[GROUP_BYTES], point[GROUP_BYTES];
    while (!found && fgets(line, sizeof line, mounts) != nullptr) {
        if (!parse_mount(line, root, point))
            continue;
        const int length = snprintf(folder, size, "%s%s/cgroup.procs", point, group);
        found = static_cast<size_t>(length) < size && access(folder, F_OK) == 0;
    }
    fclose(mounts);
    if (!found)
        return vrf_failed(ENOENT, "the group \"%s\" on the unified hierarchy", group);
    *strrchr(folder, '/') = '\0';
    return 0;
}

/* The group that those of devices lie below. */
static int open_base_group(int *fd)
{
    char group[GROUP_BYTES], path[GROUP_BYTES];
    int error = find_own_group(group, sizeof group);
    if (error == 0)
        error = find_group_folder(group, path, sizeof path);
    if (error != 0)
        return error;
    *fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd >= 0 ? 0 : vrf_failed(errno, "control group %s", path);
}

static int open_below(int parent, const char *name, int *fd)
{
    if (mkdirat(parent, name, 0755) != 0 && errno != EEXIST)
        return vrf_failed(errno, "making the control group %s", name);
    *fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd >= 0 ? 0 : vrf_failed(errno, "control group %s", name);
}

static int open_group(const char *device, unsigned index, int *fd)
{
    char name[VRF_NAME_BYTES + sizeof ".4294967295"];
    int base = -1, parent = -1;
    snprintf(name, sizeof name, "%s.%u", device, index);
    int error = open_base_group(&base);
    if (error != 0)
        return error;
    error = open_below(base, "vrf", &parent);
    close(base);
    if (error != 0)
        return error;
    error = open_below(parent, name, fd);
    close(parent);
    return error;
}

static int bpf(enum bpf_cmd command, union bpf_attr *attributes)
{
    return static_cast<int>(syscall(SYS_bpf, command, attributes, sizeof *attributes));
}

static uint64_t address(const void *pointer)
{
    return reinterpret_cast<uintptr_t>(pointer);
}

/* A program that is asked at each socket's creation: socket->bound_dev_if = index; return 1. */
static int load_program(unsigned index)
{
    constexpr int16_t bound_dev_if = offsetof(struct bpf_sock, bound_dev_if);
    const struct bpf_insn program[] = {
        /* code, destination, source, offset, number */
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_2, 0, 0, static_cast<int32_t>(index)},
        {BPF_STX | BPF_MEM | BPF_W, BPF_REG_1, BPF_REG_2, bound_dev_if, 0},
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 1},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    union bpf_attr load;
    memset(&load, 0, sizeof load);
    load.prog_type = BPF_PROG_TYPE_CGROUP_SOCK;
    load.insn_cnt = sizeof program / sizeof *program;
    load.insns = address(program);
    load.license = address("");
    return bpf(BPF_PROG_LOAD, &load);
}

static int attach_program(int group, unsigned index)
{
    const int program = load_program(index);
    if (program < 0)
        return vrf_failed(errno, "program of a control group");
    union bpf_attr attach;
    memset(&attach, 0, sizeof attach);
    attach.target_fd = static_cast<uint32_t>(group);
    attach.attach_bpf_fd = static_cast<uint32_t>(program);
    attach.attach_type = BPF_CGROUP_INET_SOCK_CREATE;
    const int error = bpf(BPF_PROG_ATTACH, &attach) == 0 ? 0 : errno;
    close(program);
    return error != 0 ? vrf_failed(error, "attaching to a control group") : 0;
}

static int join_group(int group)
{
    const int processes = openat(group, "cgroup.procs", O_WRONLY | O_CLOEXEC);
    const int error = processes >= 0 && write(processes, "0", 1) == 1 ? 0 : errno;
    if (processes >= 0)
        close(processes);
    return error != 0 ? vrf_failed(error, "joining a control group") : 0;
}

static int device_of_socket(int family, int type, unsigned *index)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    socklen_t size = sizeof *index;
    const int error = getsockopt(fd, SOL_SOCKET, SO_BINDTOIFINDEX, index, &size) == 0 ? 0 : errno;
    close(fd);
    return error;
}

/* Programs of groups further up may have the last word, and old kernels do without any while net_cls is in use. */
static int check_sockets(unsigned index)
{
    constexpr struct {
        int family, type;
    } kinds[] = {
        {AF_INET, SOCK_DGRAM}, {AF_INET, SOCK_STREAM}, {AF_INET6, SOCK_DGRAM}, {AF_INET6, SOCK_STREAM}};
    for (const auto &kind : kinds) {
        unsigned bound = 0;
        const int error = device_of_socket(kind.family, kind.type, &bound);
        if (error == EAFNOSUPPORT)
            continue;
        if (error != 0)
            return vrf_failed(error, "device of a socket");
        if (bound != index)
            return vrf_failed(EXDEV, "sockets are bound to device %u, not %u", bound, index);
    }
    return 0;
}

int vrf_join_device(const char *device, unsigned index)
{
    int group = -1;
    int error = open_group(device, index, &group);
    if (error != 0)
        return error;
    error = attach_program(group, index);
    if (error == 0)
        error = join_group(group);
    close(group);
    return error != 0 ? error : check_sockets(index);
}

int vrf_leave_device()
{
    if (check_sockets(NO_DEVICE) == 0)
        return 0;
    int group = -1;
    int error = open_base_group(&group);
    if (error != 0)
        return error;
    error = join_group(group);
    close(group);
    return error != 0 ? error : check_sockets(NO_DEVICE);
}
