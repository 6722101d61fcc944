/*
 * output.cpp: formats answers. Requests have been checked and are printed as they are; canonical names come from the
 * network and are always escaped.
 */
#include "host/output.h"

#include <arpa/inet.h>
#include <glib.h>
#include <netinet/in.h>
#include <string.h>

static constexpr size_t SHOWN_BYTES = 40;

struct address_text {
    char text[INET6_ADDRSTRLEN + sizeof "%4294967295"];
    int port;
};

char *printable_text(const char *text)
{
    return g_strescape(text, nullptr);
}

char *printable_name(const char *name)
{
    if (strlen(name) <= SHOWN_BYTES)
        return printable_text(name);
    g_autofree char *head = g_strndup(name, SHOWN_BYTES);
    g_autofree char *shown = printable_text(head);
    return g_strconcat(shown, "...", nullptr);
}

/* The scope is printed as a number: it may be an interface of another VRF, which this process cannot name. */
static void format_ipv6(const struct sockaddr_in6 *ip, struct address_text *out)
{
    char host[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &ip->sin6_addr, host, sizeof host);
    if (ip->sin6_scope_id != 0)
        g_snprintf(out->text, sizeof out->text, "%s%%%u", host, ip->sin6_scope_id);
    else
        g_strlcpy(out->text, host, sizeof out->text);
    out->port = ntohs(ip->sin6_port);
}

static struct address_text format_address(const struct addrinfo *node)
{
    struct address_text out = {"?", 0};
    if (node->ai_family == AF_INET && node->ai_addrlen >= sizeof(struct sockaddr_in)) {
        struct sockaddr_in ip;
        memcpy(&ip, node->ai_addr, sizeof ip);
        inet_ntop(AF_INET, &ip.sin_addr, out.text, sizeof out.text);
        out.port = ntohs(ip.sin_port);
    } else if (node->ai_family == AF_INET6 && node->ai_addrlen >= sizeof(struct sockaddr_in6)) {
        struct sockaddr_in6 ip;
        memcpy(&ip, node->ai_addr, sizeof ip);
        format_ipv6(&ip, &out);
    }
    return out;
}

static void format_socktype(int socktype, char *text, size_t size)
{
    switch (socktype) {
    case SOCK_STREAM:
        g_strlcpy(text, "STREAM", size);
        break;
    case SOCK_DGRAM:
        g_strlcpy(text, "DGRAM", size);
        break;
    case SOCK_RAW:
        g_strlcpy(text, "RAW", size);
        break;
    default:
        g_snprintf(text, size, "%d", socktype);
    }
}

void print_plain(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome)
{
    for (const struct addrinfo *node = outcome->addresses; node != nullptr; node = node->ai_next) {
        const struct address_text address = format_address(node);
        char socktype[sizeof "-2147483648"];
        format_socktype(node->ai_socktype, socktype, sizeof socktype);
        const bool canonical = node->ai_canonname != nullptr && *node->ai_canonname != '\0';
        g_autofree char *name = canonical ? printable_text(node->ai_canonname) : g_strdup(request->host);
        fprintf(out, "%-15s %-6s %s\n", address.text, socktype, name);
    }
}

static void add_text(JsonBuilder *json, const char *name, const char *value)
{
    json_builder_set_member_name(json, name);
    json_builder_add_string_value(json, value);
}

static void add_number(JsonBuilder *json, const char *name, int64_t value)
{
    json_builder_set_member_name(json, name);
    json_builder_add_int_value(json, value);
}

static void add_addresses(JsonBuilder *json, const struct addrinfo *node)
{
    json_builder_set_member_name(json, "addresses");
    json_builder_begin_array(json);
    for (; node != nullptr; node = node->ai_next) {
        const struct address_text address = format_address(node);
        json_builder_begin_object(json);
        add_text(json, "address", address.text);
        add_number(json, "family", node->ai_family);
        add_number(json, "socktype", node->ai_socktype);
        add_number(json, "protocol", node->ai_protocol);
        add_number(json, "port", address.port);
        json_builder_end_object(json);
    }
    json_builder_end_array(json);
}

static const char *source_name(enum answer_source source)
{
    switch (source) {
    case SOURCE_CACHE:
        return "cache";
    case SOURCE_JOB:
        return "job";
    case SOURCE_BACKGROUND:
        return "background";
    case SOURCE_NONE:
        break;
    }
    return nullptr;
}

void print_json(FILE *out, const struct lookup_request *request, const struct lookup_outcome *outcome)
{
    g_autoptr(JsonBuilder) json = json_builder_new();
    json_builder_begin_object(json);
    add_text(json, "host", request->host);
    add_text(json, "service", request->service);
    add_number(json, "vrf", request->vrf);
    add_number(json, "result", outcome->result);
    add_text(json, "source", source_name(outcome->source));
    add_number(json, "elapsed_us", outcome->elapsed_us);
    add_addresses(json, outcome->addresses);
    json_builder_end_object(json);
    print_json_document(out, json);
}

void print_json_document(FILE *out, JsonBuilder *json)
{
    g_autoptr(JsonNode) root = json_builder_get_root(json);
    g_autofree char *line = json_to_string(root, FALSE);
    fprintf(out, "%s\n", line);
}
