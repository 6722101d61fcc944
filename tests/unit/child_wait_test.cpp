#include <errno.h>

#include "tests/support/fakes.h"

class ChildWait : public world_test
{
};

TEST_F(ChildWait, EndsWithTheChildOrAnErrorOrItsLimit)
{
    const lines progress = {"dnscache_wait_for_child(#): iter(1) Waiting for spawnlet(42) to exit \n",
                            "dnscache_wait_for_child(#): iter(40) Waiting for spawnlet(42) to exit \n",
                            "dnscache_wait_for_child(#): iter(80) Waiting for spawnlet(42) to exit \n"};
    std::vector<int> last_poll(81, 0);
    last_poll[80] = 1;
    lines to_the_limit = progress;
    to_the_limit.push_back("dnscache_wait_for_child(#): spawnlet(42) not yet exited\n");
    const struct {
        std::vector<int> polls;
        int waits, sleeps;
        lines messages;
    } cases[] = {
        {{1}, 1, 0, {}},
        {{-EINTR, -EINTR, 0, -EINTR, 1}, 5, 1, {progress[0]}},
        {{-ECHILD}, 1, 0, {"dnscache_wait_for_child(#): spawnlet(42) errno(D'10:No child processes)\n"}},
        {{}, 81, 80, to_the_limit},
        {last_poll, 81, 80, progress},
    };
    for (const auto &c : cases) {
        fake = {};
        fake.waitpid_results = c.polls;
        dnscache_wait_for_child(42);
        EXPECT_EQ(fake.waits, c.waits);
        EXPECT_EQ(fake.sleeps, c.sleeps);
        EXPECT_EQ(traces(), c.messages);
    }
}
