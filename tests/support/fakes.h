/*
 * fakes.h: the memory platform and stand-ins for the C library calls whose results a test scripts, which the linker's
 * --wrap puts in place of the real ones. What the library does to the outside is noted in fake.log, in order.
 */
#ifndef TESTS_SUPPORT_FAKES_H
#define TESTS_SUPPORT_FAKES_H

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "platform/memory/memory_platform.h"

struct fake_world {
    std::vector<std::string> log; /* trace sinks start with H, B, F or P and a blank */

    /* switches and results */
    long marker, fopen_fails, syserr, async_syserr, ret_syserr, resolver_result;
    long now = 1000;
    long failing_malloc; /* counts down; the malloc() that finds it at 1 fails */
    std::vector<unsigned char> ret_info;
    bool loses_buffer; /* a size comes back without its buffer */
    struct addrinfo *resolver_answer;
    std::vector<int> waitpid_results; /* then 0 for ever; negative: minus an errno */

    std::set<void *> blocks; /* taken and not yet freed */
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

/* Result record of host:port:vrf with these addresses. */
server_spawnlet_data_t a_record(const std::string &host, int port, int vrf,
                                const std::vector<std::string> &addresses);

/* A copy that a list may own. */
template <typename T>
T *on_heap(const T &value)
{
    auto *block = static_cast<T *>(malloc(sizeof(T)));
    *block = value;
    return block;
}

#endif
