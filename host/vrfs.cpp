/*
 * vrfs.cpp: the VRFs of this machine.
 */
#include "host/vrfs.h"

#include <glib.h>
#include <json-glib/json-glib.h>
#include <stdlib.h>
#include <string.h>

#include "host/output.h"
#include "platform/linux/linux_platform.h"

static const char *kind_name(linux_vrf_kind kind)
{
    switch (kind) {
    case LINUX_VRF_HOST:
        return "host";
    case LINUX_VRF_NAMESPACE:
        return "namespace";
    case LINUX_VRF_DEVICE:
        return "device";
    case LINUX_VRF_UNUSABLE:
        break;
    }
    return "unusable";
}

static int by_path(const void *left, const void *right)
{
    return strcmp(*static_cast<char *const *>(left), *static_cast<char *const *>(right));
}

/* The paths, sorted; empty when the VRF has no files of its own. */
static GPtrArray *own_files(int32_t vrf)
{
    GPtrArray *paths = g_ptr_array_new_with_free_func(g_free);
    g_autofree char *folder = g_strdup_printf("%s/vrf%d", LINUX_VRF_FILES, vrf);
    GDir *names = vrf != 0 ? g_dir_open(folder, 0, nullptr) : nullptr;
    if (names == nullptr)
        return paths;
    while (const char *name = g_dir_read_name(names))
        g_ptr_array_add(paths, g_build_filename(folder, name, nullptr));
    g_dir_close(names);
    g_ptr_array_sort(paths, by_path);
    return paths;
}

static void print_text_line(FILE *out, const linux_vrf *vrf, const GPtrArray *files)
{
    fprintf(out, "%-10d  %-9s ", vrf->vrf, kind_name(vrf->kind));
    for (guint i = 0; i < files->len; i++) {
        g_autofree char *shown = printable_text(static_cast<const char *>(files->pdata[i]));
        fprintf(out, " %s", shown);
    }
    fputs(files->len == 0 ? " -\n" : "\n", out);
}

static void print_json_line(FILE *out, const linux_vrf *vrf, const GPtrArray *files)
{
    g_autoptr(JsonBuilder) json = json_builder_new();
    json_builder_begin_object(json);
    json_builder_set_member_name(json, "vrf");
    json_builder_add_int_value(json, vrf->vrf);
    json_builder_set_member_name(json, "kind");
    json_builder_add_string_value(json, kind_name(vrf->kind));
    json_builder_set_member_name(json, "files");
    json_builder_begin_array(json);
    for (guint i = 0; i < files->len; i++) {
        g_autofree char *shown = printable_text(static_cast<const char *>(files->pdata[i]));
        json_builder_add_string_value(json, shown);
    }
    json_builder_end_array(json);
    json_builder_end_object(json);
    print_json_document(out, json);
}

bool print_vrfs(FILE *out, enum vrf_format format)
{
    size_t count;
    linux_vrf *vrfs = linux_vrf_list(&count);
    if (vrfs == nullptr)
        return false;
    for (size_t i = 0; i < count; i++) {
        g_autoptr(GPtrArray) files = own_files(vrfs[i].vrf);
        if (format == VRFS_AS_JSON)
            print_json_line(out, &vrfs[i], files);
        else
            print_text_line(out, &vrfs[i], files);
    }
    free(vrfs);
    return true;
}

char *explain_vrf(int32_t vrf)
{
    char reason[LINUX_HISTORY_BYTES];
    return linux_vrf_check(vrf, reason, sizeof reason) == 0 ? nullptr : printable_text(reason);
}
