/*
 * vrf_list.cpp: which VRFs this machine has.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_binding.h"

struct vrf_table {
    linux_vrf *vrfs;
    size_t count;
    bool is_full; /* no memory for more */
};

/* The number in "vrfN"; 0 when it is another name, VRF 0 having none. */
static int32_t number_in(const char *name)
{
    char again[VRF_NAME_BYTES + 8];
    const long long number = strncmp(name, "vrf", 3) == 0 ? strtoll(name + 3, nullptr, 10) : 0;
    if (number <= 0 || number > INT32_MAX)
        return 0;
    snprintf(again, sizeof again, "vrf%lld", number);
    return strcmp(name, again) == 0 ? static_cast<int32_t>(number) : 0;
}

/* The first to name a VRF decides its kind. */
static void add(vrf_table *table, int32_t vrf, linux_vrf_kind kind)
{
    for (size_t i = 0; i < table->count; i++)
        if (table->vrfs[i].vrf == vrf)
            return;
    void *larger = realloc(table->vrfs, (table->count + 1) * sizeof *table->vrfs);
    table->is_full = table->is_full || larger == nullptr;
    if (larger == nullptr)
        return;
    table->vrfs = static_cast<linux_vrf *>(larger);
    table->vrfs[table->count++] = {.vrf = vrf, .kind = kind};
}

static linux_vrf_kind kind_of(const char *name)
{
    char path[sizeof LINUX_VRF_NAMESPACES "/" + VRF_NAME_BYTES];
    snprintf(path, sizeof path, LINUX_VRF_NAMESPACES "/%.*s", VRF_NAME_BYTES, name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const bool is_namespace = fd >= 0 && ioctl(fd, NS_GET_NSTYPE) == CLONE_NEWNET;
    if (fd >= 0)
        close(fd);
    return is_namespace ? LINUX_VRF_NAMESPACE : LINUX_VRF_UNUSABLE;
}

static bool add_namespaces(vrf_table *table)
{
    DIR *names = opendir(LINUX_VRF_NAMESPACES);
    if (names == nullptr)
        return errno == ENOENT;
    const struct dirent *entry;
    while ((errno = 0, entry = readdir(names)) != nullptr) {
        const int32_t vrf = number_in(entry->d_name);
        if (vrf != 0)
            add(table, vrf, kind_of(entry->d_name));
    }
    const int error = errno;
    closedir(names);
    errno = error;
    return error == 0;
}

static bool add_devices(vrf_table *table)
{
    struct if_nameindex *devices = if_nameindex();
    if (devices == nullptr)
        return false;
    for (const struct if_nameindex *device = devices; device->if_index != 0; device++) {
        const int32_t vrf = number_in(device->if_name);
        if (vrf != 0)
            add(table, vrf, LINUX_VRF_DEVICE);
    }
    if_freenameindex(devices);
    return true;
}

static int by_number(const void *left, const void *right)
{
    const int32_t a = static_cast<const linux_vrf *>(left)->vrf;
    const int32_t b = static_cast<const linux_vrf *>(right)->vrf;
    return a < b ? -1 : a > b;
}

linux_vrf *linux_vrf_list(size_t *count)
{
    const int error = errno; /* to be left alone by a call that succeeds */
    vrf_table table = {.vrfs = nullptr, .count = 0, .is_full = false};
    add(&table, 0, LINUX_VRF_HOST);
    if (!add_namespaces(&table) || !add_devices(&table) || table.is_full) {
        free(table.vrfs);
        return nullptr;
    }
    qsort(table.vrfs, table.count, sizeof *table.vrfs, by_number);
    *count = table.count;
    errno = error;
    return table.vrfs;
}
