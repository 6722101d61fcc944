/*
 * The library on the Linux platform layer: real forks, a scripted resolver in the children.
 *
 * A name says what its resolution does. Where a child has to be slow it waits for an event that the test
 * makes, so nothing depends on how long anybody sleeps; the one second of a blocking wait is the shortest
 * there is.
 */
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>

#include "dnscache/dnscache.h"
#include "dnscache/state.h"
#include "tests/support/jobs.h"

static char gate[64]; /* a FIFO: whoever opens it to read waits until the test opens it to write */

extern "C" {
int __real_spawnlet_done(const void *buffer, uint32_t size);

int __wrap_getaddrinfo(const char *node, const char *, const struct addrinfo *, struct addrinfo **answer)
{
    const std::string name = node;
    if (name == "slow")
        close(open(gate, O_RDONLY));
    if (name == "hangs" || name.starts_with("hangs-"))
        pause();
    if (name == "crashes")
        raise(SIGSEGV);
    if (name == "unknown")
        return EAI_NONAME;
    if (name == "impossible")
        return 1;
    struct node_block {
        struct addrinfo node;
        struct sockaddr_in address;
    };
    auto *block = static_cast<node_block *>(calloc(1, sizeof(node_block)));
    block->address = {.sin_family = AF_INET, .sin_port = htons(123), .sin_addr = {htonl(0xc0000201)}};
    block->node.ai_family = AF_INET;
    block->node.ai_addrlen = sizeof block->address;
    block->node.ai_addr = reinterpret_cast<struct sockaddr *>(&block->address);
    *answer = &block->node;
    return 0;
}

int __wrap_spawnlet_done(const void *buffer, uint32_t size)
{
    char bytes[2000] = "";
    memcpy(bytes, buffer, size);
    const std::string name = static_cast<const server_spawnlet_data_t *>(buffer)->serv_name;
    return __real_spawnlet_done(bytes, name == "short" ? 1675 : name == "long" ? 1677 : size);
}
}

class RealJobs : public testing::Test
{
  protected:
    void SetUp() override
    {
        snprintf(gate, sizeof gate, "/tmp/real_jobs_test.%d", getpid());
        ASSERT_EQ(mkfifo(gate, 0600), 0);
        queue = linux_queue_create();
        dns_cache_init(queue, 1);
    }

    void TearDown() override
    {
        unlink(gate);
        destroy_dns_cache(local_cache);
        destroy_dns_cache(job_list);
    }

    int look_up(const std::string &name)
    {
        struct addrinfo hints = {}, *chain = nullptr;
        const int result = getaddrinfo_async_mq3(name.c_str(), "123", &hints, 0, &chain);
        EXPECT_EQ(chain != nullptr, result == 0);
        if (chain != nullptr)
            freeaddrinfo(chain);
        return result;
    }

    linux_completion complete_one()
    {
        const linux_completion done = next_completion(queue);
        dnscache_spawnletcb_job_done(done.handle, done.syserr, done.ret_info, done.ret_info_size,
                                     done.ret_syserr);
        return done;
    }

    uint64_t jobs_started()
    {
        linux_job_counters counters;
        linux_jobs_started(&counters);
        return counters.blocking;
    }

    uint32_t queue = 0;
};

TEST_F(RealJobs, SecondLookupIsAHit)
{
    EXPECT_EQ(look_up("quick"), 0);
    EXPECT_EQ(look_up("quick"), 0);
    EXPECT_EQ(jobs_started(), 1u);
    EXPECT_EQ(static_cast<server_spawnlet_data_t *>(local_cache->data)->addr[0][4], 0xc0);
}

TEST_F(RealJobs, SlowNameIsAnsweredFromTheCacheAfterItsCompletion)
{
    EXPECT_EQ(look_up("slow"), -3);
    EXPECT_EQ(running_jobs, 1);
    const int opened = open(gate, O_WRONLY); /* waits for the child, then lets it go */
    const linux_completion done = complete_one();
    close(opened);
    EXPECT_EQ(done.ret_info_size, 1676u);
    EXPECT_EQ(running_jobs, 0);
    EXPECT_EQ(job_list, nullptr);
    EXPECT_EQ(look_up("slow"), 0);
    EXPECT_EQ(jobs_started(), 1u);
}

TEST_F(RealJobs, FailuresOfTheChildCacheNothing)
{
    const struct {
        const char *name;
        int result;      /* of the lookup */
        uint32_t syserr; /* of the background job, where there is one */
        bool goes_on;
    } cases[] = {
        {"unknown", EAI_NONAME, 0, false},
        {"short", -1, 0, false},
        {"long", -1, 0, false},
        {"impossible", -1, 0, false},
        {"crashes", -3, LINUX_JOB_NO_RESULT, true},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(look_up(c.name), c.result) << c.name;
        EXPECT_EQ(running_jobs, c.goes_on ? 1 : 0) << c.name;
        if (c.goes_on) {
            EXPECT_EQ(complete_one().syserr, c.syserr) << c.name;
        }
        EXPECT_EQ(running_jobs, 0) << c.name;
        EXPECT_EQ(local_cache, nullptr) << c.name;
    }
}

TEST_F(RealJobs, BackgroundRecordOfTheWrongSizeIsAFailure)
{
    EXPECT_EQ(add_entry_to_dns_cache("short", 123, 0, nullptr), 0);
    EXPECT_EQ(complete_one().ret_info_size, 1675u);
    EXPECT_EQ(local_cache, nullptr);
    EXPECT_EQ(running_jobs, 0);
}

TEST_F(RealJobs, TenRunAndTheEleventhIsRefused)
{
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(add_entry_to_dns_cache(("hangs-" + std::to_string(i)).c_str(), 123, 0, nullptr), 0);
    EXPECT_EQ(add_entry_to_dns_cache("hangs-10", 123, 0, nullptr), -1);
    EXPECT_EQ(look_up("hangs"), -1);
    EXPECT_EQ(look_up("hangs-3"), LINUX_JOB_TIMED_OUT); /* its own job still runs */
    EXPECT_EQ(look_up("quick"), 0);
    EXPECT_EQ(running_jobs, 10);
}
