/*
 * golden.cpp: writes and reads the records that processes exchange. Builds of both word sizes must write identical
 * files, and read them.
 *
 *   golden write FOLDER    write request.bin, options.bin and result.bin of a lookup that continues in the background
 *   golden read FOLDER     print their contents
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "dnscache/dnscache.h"
#include "platform/memory/memory_platform.h"

static FILE *output; /* standard output, without the library's trace */

/* The time of the answer. */
extern "C" time_t __wrap_time(time_t *)
{
    return 0x5a6b7c8d;
}

static FILE *open_record(const char *folder, const char *name, const char *mode)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", folder, name);
    FILE *file = fopen(path, mode);
    if (file == nullptr) {
        perror(path);
        exit(1);
    }
    return file;
}

static void write_record(const char *folder, const char *name, const void *record, size_t size)
{
    FILE *file = open_record(folder, name, "w");
    const size_t written = fwrite(record, 1, size, file);
    if (fclose(file) != 0 || written != size)
        exit(1);
}

template <typename T>
static T read_record(const char *folder, const char *name)
{
    T record;
    FILE *file = open_record(folder, name, "r");
    if (fread(&record, sizeof record, 1, file) != 1 || fgetc(file) != EOF)
        exit(1);
    fclose(file);
    return record;
}

/* They belong to the background job, which starts when the blocking job has timed out. */
static const void *request;
static job_options options;

static uint32_t note_start(memory_job *job)
{
    request = job->arg;
    options = *job->options;
    return 0;
}

static int write_records(const char *folder)
{
    const struct addrinfo hints = {.ai_flags = AI_CANONNAME | AI_NUMERICSERV,
                                   .ai_family = AF_INET6,
                                   .ai_socktype = SOCK_DGRAM,
                                   .ai_protocol = IPPROTO_UDP,
                                   .ai_addrlen = 0,
                                   .ai_addr = nullptr,
                                   .ai_canonname = nullptr,
                                   .ai_next = nullptr};
    struct addrinfo *found = nullptr;
    memory_completion done;
    srand(1);
    memory.on_start = note_start;
    memory.job_seconds = 200; /* between the timeouts of a lookup and of its background job */
    memory.next_handle = 0xa1b2c3d4;
    memory.vrfs = 0x10203;
    const uint32_t queue = memory_queue_create();
    dns_cache_init(queue, 0);
    if (getaddrinfo_async_mq3("four.test", "8080", &hints, 0x10203, &found) != -3)
        return 1;
    write_record(folder, "request.bin", request, sizeof(server_addr_info));
    write_record(folder, "options.bin", &options, sizeof options);
    if (memory_queue_next(queue, &done) != 1 || done.ret_info == nullptr)
        return 1;
    write_record(folder, "result.bin", done.ret_info, done.ret_info_size);
    return 0;
}

static void print_hints(const dnscache_addrinfo_image &hints)
{
    fprintf(output, "  hints %#x %d %d %d %u, pointers %u %u %u\n", static_cast<unsigned>(hints.ai_flags),
            hints.ai_family, hints.ai_socktype, hints.ai_protocol, hints.ai_addrlen, hints.ai_addr,
            hints.ai_canonname, hints.ai_next);
}

static void print_node(const struct addrinfo &node)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(node.ai_family, get_sock_in_addr(node.ai_addr), text, sizeof text);
    struct sockaddr_in6 address = {};
    memcpy(&address, node.ai_addr, node.ai_addrlen);
    fprintf(output, "  %s port %d scope %u, type %d %d, flags %d, %u bytes, %s\n", text,
            ntohs(address.sin6_port), address.sin6_scope_id, node.ai_socktype, node.ai_protocol,
            node.ai_flags, node.ai_addrlen, node.ai_canonname != nullptr ? node.ai_canonname : "no name");
}

static int read_records(const char *folder)
{
    const auto asked = read_record<server_addr_info>(folder, "request.bin");
    fprintf(output, "request\n  handle %#x, %s %s, vrf %#x\n", asked.job_handle, asked.serv_name,
            asked.service, static_cast<unsigned>(asked.vrf));
    print_hints(asked.hints);

    const auto how = read_record<job_options>(folder, "options.bin");
    fprintf(output, "options\n  tag %u, %u bytes, %d s, flag %u\n", how.job_tag, how.record_size,
            how.timeout_secs, how.option_flag);

    auto answer = read_record<server_spawnlet_data_t>(folder, "result.bin");
    fprintf(output, "result\n  key %s, %s %s, vrf %#x, time %#x, status %d, %d entries\n", answer.serv_id,
            answer.serv_name, answer.service, static_cast<unsigned>(answer.vrf),
            static_cast<unsigned>(answer.timestamp), answer.status, answer.num_entries);
    print_hints(answer.hints);
    struct addrinfo *found = nullptr;
    if (get_res_back(&answer, &found) != 0)
        return 1;
    for (const struct addrinfo *node = found; node != nullptr; node = node->ai_next)
        print_node(*node);
    freeaddrinfo(found);
    return 0;
}

int main(int argc, char **argv)
{
    output = fdopen(dup(STDOUT_FILENO), "w");
    if (output == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    if (argc == 3 && strcmp(argv[1], "write") == 0)
        return write_records(argv[2]);
    if (argc == 3 && strcmp(argv[1], "read") == 0)
        return read_records(argv[2]);
    fprintf(stderr, "usage: %s write|read FOLDER\n", argv[0]);
    return 1;
}
