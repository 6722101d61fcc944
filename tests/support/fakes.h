/*
 * fakes.h: the memory platform, and fakes of C library functions, which the linker option --wrap puts in place of the
 * real ones. A test sets their results. fake.log records the trace messages and most calls of both, in order.
 */
#ifndef TESTS_SUPPORT_FAKES_H
#define TESTS_SUPPORT_FAKES_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "platform/memory/memory_platform.h"

struct fake_world {
    std::vector<std::string> log; /* trace messages begin with their sink, H, B, F or P, and a blank */

    /* set by the test: what the fakes do and return */
    long marker = 1, fopen_fails, syserr, async_syserr, ret_syserr, resolver_result;
    long now = 1000;
    long failing_malloc; /* N: the N-th malloc() from now fails; 0: none */
    std::vector<unsigned char> ret_info;
    bool loses_buffer; /* the job service returns a size, but no buffer */
    struct addrinfo *resolver_answer;
    std::vector<int> waitpid_results; /* one for each call, then always 0; negative: -errno */

    std::map<void *, size_t> blocks; /* allocated and not yet freed, with their sizes */
    int waits, sleeps;
};
extern fake_world fake;

/*
 * Resets the fakes and the state of the library before each test, and fails a test that leaks memory. The debug log is
 * open at first.
 */
class world_test : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
