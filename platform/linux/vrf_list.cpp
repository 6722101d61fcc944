/*
 * vrf_list.cpp: the VRFs of this machine: the numbers in the names of namespaces and devices. vrf_find() decides what
 * each of them is.
 */
#include <dirent.h>
#include <errno.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/vrf_find.h"

struct vrf_table {
    linux_vrf *vrfs;
    size_t count;
    bool is_incomplete; /* out of memory */
};

/* The number in "vrfN"; 0 for any other name: VRF 0 has no name. */
static int32_t number_in(const char *name)
{
    char again[VRF_NAME_BYTES + 8];
    const long long number = strncmp(name, "vrf", 3) == 0 ? strtoll(name + 3, nullptr, 10) : 0;
    if (number <= 0 || number > INT32_MAX)
        return 0;
    snprintf(again, sizeof again, "vrf%lld", number);
    return strcmp(name, again) == 0 ? static_cast<int32_t>(number) : 0;
}

static void add(vrf_table *table, int32_t vrf)
{
    void *larger = realloc(table->vrfs, (table->count + 1) * sizeof *table->vrfs);
    table->is_incomplete = table->is_incomplete || larger == nullptr;
    if (larger == nullptr)
        return;
    table->vrfs = static_cast<linux_vrf *>(larger);
    table->vrfs[table->count++] = {.vrf = vrf, .kind = LINUX_VRF_HOST};
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
            add(table, vrf);
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
            add(table, vrf);
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

/* Returns false when the network has vanished since its name was read. */
static bool find_kind(linux_vrf *vrf)
{
    vrf_network network;
    if (vrf->vrf == 0)
        return true;
    if (vrf_find(vrf->vrf, &network) == 0)
        vrf_release(&network);
    vrf->kind = network.kind;
    return !network.is_missing;
}

/* A VRF that has both a namespace and a device is in the table twice. */
static void remove_duplicates_and_missing(vrf_table *table)
{
    size_t kept = 0;
    for (size_t i = 0; i < table->count; i++) {
        linux_vrf vrf = table->vrfs[i];
        const bool is_duplicate = i > 0 && vrf.vrf == table->vrfs[i - 1].vrf;
        if (!is_duplicate && find_kind(&vrf))
            table->vrfs[kept++] = vrf;
    }
    table->count = kept;
}

linux_vrf *linux_vrf_list(size_t *count)
{
    const int error = errno; /* a successful call leaves errno unchanged */
    vrf_table table = {.vrfs = nullptr, .count = 0, .is_incomplete = false};
    add(&table, 0);
    if (!add_namespaces(&table) || !add_devices(&table) || table.is_incomplete) {
        free(table.vrfs);
        return nullptr;
    }
    qsort(table.vrfs, table.count, sizeof *table.vrfs, by_number);
    remove_duplicates_and_missing(&table);
    *count = table.count;
    errno = error;
    return table.vrfs;
}
