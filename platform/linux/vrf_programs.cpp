/*
 * vrf_programs.cpp: the two BPF programs of a device's control group: one binds sockets, the other drops packets.
 */
#include <errno.h>
#include <linux/bpf.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <span>

#include "platform/linux/vrf_binding.h"
#include "platform/linux/vrf_device.h"

using instructions = std::span<const struct bpf_insn>;
using program_name = char[BPF_OBJ_NAME_LEN];

/* The program that decides which packets may leave. Static, since the daemon's stack may be too small for it. */
static struct {
    vrf_links links;
    struct bpf_insn code[VRF_LINKS_MAX + 4];
    size_t length;
    program_name name;
} egress;

static int bpf(enum bpf_cmd command, union bpf_attr *attributes)
{
    return static_cast<int>(syscall(SYS_bpf, command, attributes, sizeof *attributes));
}

static uint64_t address(const void *pointer)
{
    return reinterpret_cast<uintptr_t>(pointer);
}

/* Before Linux 5.11 programs count against RLIMIT_MEMLOCK, which is low for daemons; raising it requires privilege. */
static int load_with_raised_limit(union bpf_attr *load)
{
    constexpr struct rlimit no_limit = {RLIM_INFINITY, RLIM_INFINITY};
    struct rlimit before;
    const bool is_raised =
        getrlimit(RLIMIT_MEMLOCK, &before) == 0 && setrlimit(RLIMIT_MEMLOCK, &no_limit) == 0;
    const int program = bpf(BPF_PROG_LOAD, load);
    const int error = errno;
    if (is_raised)
        setrlimit(RLIMIT_MEMLOCK, &before);
    errno = error;
    return program;
}

static int load(enum bpf_prog_type type, enum bpf_attach_type place, instructions code, const char *name)
{
    union bpf_attr attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.prog_type = type;
    attributes.expected_attach_type = place;
    attributes.insn_cnt = static_cast<uint32_t>(code.size());
    attributes.insns = address(code.data());
    attributes.license = address("");
    snprintf(attributes.prog_name, sizeof attributes.prog_name, "%s", name);
    return load_with_raised_limit(&attributes);
}

/* Replaces the program that is attached there, and closes program, even if attaching fails. */
static int attach(int group, enum bpf_attach_type place, int program)
{
    if (program < 0)
        return vrf_failed(errno,
                          "loading a program (needs CAP_SYS_ADMIN, before Linux 5.11 CAP_SYS_RESOURCE too)");
    union bpf_attr attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.target_fd = static_cast<uint32_t>(group);
    attributes.attach_bpf_fd = static_cast<uint32_t>(program);
    attributes.attach_type = place;
    const int error = bpf(BPF_PROG_ATTACH, &attributes) == 0 ? 0 : errno;
    close(program);
    return error != 0
               ? vrf_failed(
                     error,
                     "attaching a program (needs CAP_NET_ADMIN, and no ancestor group whose program excludes others)")
               : 0;
}

/* The program: socket->bound_dev_if = device; return 1 (allow). */
int vrf_bind_group(int group, unsigned device)
{
    constexpr int16_t bound_dev_if = offsetof(struct bpf_sock, bound_dev_if);
    const struct bpf_insn code[] = {
        /* code, destination, source, offset, number */
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_2, 0, 0, static_cast<int32_t>(device)},
        {BPF_STX | BPF_MEM | BPF_W, BPF_REG_1, BPF_REG_2, bound_dev_if, 0},
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 1},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    return attach(group, BPF_CGROUP_INET_SOCK_CREATE,
                  load(BPF_PROG_TYPE_CGROUP_SOCK, BPF_CGROUP_INET_SOCK_CREATE, code, "dnscache_bind"));
}

/* The program: if (packet->ifindex is not among the links) return 0 (drop); return 1 (allow). */
static void build_egress()
{
    constexpr int16_t ifindex = offsetof(struct __sk_buff, ifindex);
    struct bpf_insn *next = egress.code;
    *next++ = {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 1};
    *next++ = {BPF_LDX | BPF_MEM | BPF_W, BPF_REG_2, BPF_REG_1, ifindex, 0};
    for (unsigned i = 0; i < egress.links.count; i++) {
        const auto to_exit = static_cast<int16_t>(egress.links.count - i);
        *next++ = {BPF_JMP | BPF_JEQ | BPF_K, BPF_REG_2, 0, to_exit,
                   static_cast<int32_t>(egress.links.index[i])};
    }
    *next++ = {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0};
    *next++ = {BPF_JMP | BPF_EXIT, 0, 0, 0, 0};
    egress.length = static_cast<size_t>(next - egress.code);
}

/* The name is a hash of the code, which includes the members: a program with this name has exactly this code. */
static void name_egress()
{
    uint64_t hash = 0xcbf29ce484222325; /* FNV-1a */
    for (const std::byte byte : std::as_bytes(instructions(egress.code, egress.length)))
        hash = (hash ^ std::to_integer<uint64_t>(byte)) * 0x100000001b3;
    snprintf(egress.name, sizeof egress.name, "%015llx", static_cast<unsigned long long>(hash >> 4));
}

static int has_name(uint32_t id, const char *name, bool *matches)
{
    union bpf_attr attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.prog_id = id;
    const int program = bpf(BPF_PROG_GET_FD_BY_ID, &attributes);
    if (program < 0)
        return errno == ENOENT ? 0 : errno; /* ENOENT: replaced meanwhile */
    struct bpf_prog_info info;
    memset(&info, 0, sizeof info);
    memset(&attributes, 0, sizeof attributes);
    attributes.info.bpf_fd = static_cast<uint32_t>(program);
    attributes.info.info_len = sizeof info;
    attributes.info.info = address(&info);
    const int error = bpf(BPF_OBJ_GET_INFO_BY_FD, &attributes) == 0 ? 0 : errno;
    close(program);
    *matches = error == 0 && strncmp(info.name, name, sizeof info.name) == 0;
    return error;
}

/* Searches all programs that the kernel runs for the group, including those of its ancestor groups. */
static int find_egress(int group, bool *is_in_effect)
{
    uint32_t ids[256] = {};
    union bpf_attr attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.query.target_fd = static_cast<uint32_t>(group);
    attributes.query.attach_type = BPF_CGROUP_INET_EGRESS;
    attributes.query.query_flags = BPF_F_QUERY_EFFECTIVE;
    attributes.query.prog_ids = address(ids);
    attributes.query.prog_cnt = sizeof ids / sizeof *ids;
    int error = bpf(BPF_PROG_QUERY, &attributes) == 0 ? 0 : errno;
    *is_in_effect = false;
    for (unsigned i = 0; error == 0 && !*is_in_effect && i < attributes.query.prog_cnt; i++)
        error = has_name(ids[i], egress.name, is_in_effect);
    return error != 0 ? vrf_failed(error, "asking for programs (needs CAP_NET_ADMIN)") : 0;
}

/*
 * A program cannot find out which interfaces are members, so it is replaced when members have changed, also for the
 * jobs that are running. Each new program is checked again after it has been attached: members may have changed
 * meanwhile, or another job of this group may have replaced the program by one for the members of a moment before.
 */
int vrf_confine_group(int group, unsigned device)
{
    for (int tries = 0; tries < 10; tries++) {
        int error = vrf_read_links(device, &egress.links);
        if (error != 0)
            return error;
        build_egress();
        name_egress();
        bool is_in_effect;
        error = find_egress(group, &is_in_effect);
        if (error != 0 || is_in_effect)
            return error;
        error = attach(group, BPF_CGROUP_INET_EGRESS,
                       load(BPF_PROG_TYPE_CGROUP_SKB, BPF_CGROUP_INET_EGRESS, {egress.code, egress.length},
                            egress.name));
        if (error != 0)
            return error;
    }
    return vrf_failed(EBUSY, "members of device %u keep changing", device);
}
