/*
 * fakes.h: stand-ins for the platform services and for the C library calls whose results a test scripts. They
 * are linked in place of the real ones: the platform's by name, the C library's by the linker's --wrap.
 *
 * Everything the library does to the outside is one line in fake.log, in order:
 *   "H:text" "B:text" "F:text" "P:text"   a sink got this
 *   "rtctx_close" "rtctx_init" "fork" "fork_async" "bind N" "resolve HOST SERVICE" "done N" ...
 */
#ifndef TESTS_SUPPORT_FAKES_H
#define TESTS_SUPPORT_FAKES_H

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "platform/spawnlet.h"

using lines = std::vector<std::string>;

/* What the job service was given, and what was true at that moment. */
struct fork_call {
    job_options options;
    server_addr_info request;
    FILE *in, *out, *err;
    bool sigchld_is_default;
    bool is_resolver;
};

struct fake_world {
    lines log;

    /* sinks */
    bool history_on, debug_on, marker_exists, log_file_opens = true;
    uint32_t partition;
    uint32_t history_length; /* of the last record */

    /* job service and routing context */
    int rtctx_result = 1;
    uint32_t register_result, blocking_syserr, async_syserr;
    int32_t ret_syserr;
    std::vector<unsigned char> ret_info;
    bool loses_buffer; /* a size comes back without its buffer */
    uint32_t next_handle = 0x100;
    std::vector<fork_call> forks;
    std::vector<uint32_t> queues;
    std::vector<unsigned char> handed_back;

    /* C library */
    time_t now = 1000;
    int failing_malloc;      /* counts down; the malloc() that finds it at 1 fails */
    std::set<void *> blocks; /* taken and not yet freed */
    int resolver_result;
    struct addrinfo *resolver_answer;
    std::vector<int> waitpid_results; /* then 0 for ever; negative: minus an errno */
    int waits, sleeps;
};
extern fake_world fake;

/* A test with a fresh world and fresh state, which ends without a leak. */
class world_test : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;
};

/* Lines of the log with this prefix, without it. Source lines and addresses read "#". */
lines logged(const char *prefix);
/* Trace messages, as standard output got them. */
lines traces();
/* All but the sinks. */
lines calls();

struct record_facts {
    const char *host = "ntp1";
    int port = 123;
    int vrf = 3;
    int status = ENTRY_RESOLVED;
    int stamp = 1000;
    std::vector<const char *> addresses = {"192.0.2.1"};
    const char *canonical = "";
};
server_spawnlet_data_t a_record(const record_facts &facts);
std::vector<unsigned char> bytes_of(const server_spawnlet_data_t &record);

/* At the head of the cache; returns the cache's copy. */
server_spawnlet_data_t *cached(const record_facts &facts);
/* At the head of the job list. */
void running(const char *host, const char *service, int vrf, uint32_t handle = 1);

lines hosts_in_cache();
lines addresses_of(const struct addrinfo *chain);

#endif
