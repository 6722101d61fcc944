#include "tests/support/fakes.h"

class Setup : public world_test
{
};

TEST_F(Setup, OnlyTheFirstInitCounts)
{
    fake.register_result = 1; /* not looked at */
    dns_cache_init(7, 5);
    dns_cache_init(8, 9);
    EXPECT_EQ(fake.queues, (std::vector<uint32_t>{7}));
    EXPECT_EQ(async_queue, 7u);
    EXPECT_EQ(blocking_timeout, 5);
    EXPECT_EQ(cache_initialised, 1);
    EXPECT_EQ(traces(), lines{});
}

TEST_F(Setup, ZeroKeepsTheBlockingTimeout)
{
    dns_cache_init(7, 0);
    EXPECT_EQ(blocking_timeout, 3);
    dns_cache_set_timeout(-4);
    EXPECT_EQ(cache_timeout, -4);
}
