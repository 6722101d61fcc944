/*
 * background.cpp: measures the calls that never wait: start of a job, completion, refresh pass.
 */
#include <signal.h>
#include <unistd.h>

#include "bench/bench.h"

/* The start of a job, and its fork alone */

static void start(benchmark::State &state)
{
    for (auto _ : state) {
        state.SetIterationTime(seconds_of([] { start_job(VRF_NAME); }));
        deliver(next_completion(), nullptr);
        wait_for_children();
    }
}

/* Each child lives until all have been forked. */
static void fork_alone(benchmark::State &state)
{
    for (auto _ : state) {
        pid_t children[MAX_SPAWNLETS];
        const auto count = static_cast<int>(state.range(1));
        state.SetIterationTime(seconds_of([&] {
            for (int i = 0; i < count; i++)
                if ((children[i] = fork()) == 0)
                    for (;;)
                        pause();
        }));
        for (int i = 0; i < count; i++)
            if (children[i] < 0 || kill(children[i], SIGKILL) != 0)
                give_up("fork failed");
        wait_for_children();
    }
}

static void parents(benchmark::internal::Benchmark *call)
{
    call->ArgNames({"mb", "jobs"})->Setup(grow)->Teardown(shrink)->UseManualTime();
    for (const int mb : {SMALL_MB, 100, 500})
        call->Args({mb, 1});
}

BENCHMARK(start)->Apply(parents);
BENCHMARK(fork_alone)->Apply(parents)->Args({SMALL_MB, MAX_SPAWNLETS});

/* The record of the completion takes the last free place of the cache. */
static void completion(benchmark::State &state)
{
    const server_spawnlet_data_t record = record_of(VRF_NAME, 4);
    fill_cache(4, 0);
    remove_entry_from_dns_cache(server_name(MAX_CACHE_ENTRIES - 1));
    for (auto _ : state) {
        start_job(VRF_NAME);
        const linux_completion done = next_completion();
        state.SetIterationTime(seconds_of([&] { deliver(done, &record); }));
        wait_for_children();
        if (look_up(VRF_NAME, 0) != record.num_entries)
            give_up("the record of the completion is not in the cache");
        remove_entry_from_dns_cache(VRF_NAME);
    }
}

BENCHMARK(completion)->Setup(grow_a_little)->Teardown(shrink)->UseManualTime();

/* The pass starts a job for each expired record, MAX_SPAWNLETS at most. */
static void pass(benchmark::State &state)
{
    const int expired = static_cast<int>(state.range(0));
    const int jobs = expired < MAX_SPAWNLETS ? expired : MAX_SPAWNLETS;
    for (auto _ : state) {
        fill_cache(4, expired);
        linux_job_counters before, after;
        linux_jobs_started(&before);
        state.SetIterationTime(seconds_of(refresh_dns_cache));
        linux_jobs_started(&after);
        if (after.background - before.background != static_cast<uint64_t>(jobs))
            give_up("the pass started the wrong number of jobs");
        for (int i = 0; i < jobs; i++)
            deliver(next_completion(), nullptr);
        wait_for_children();
    }
}

BENCHMARK(pass)
    ->ArgName("expired")
    ->DenseRange(0, MAX_CACHE_ENTRIES, 8)
    ->Arg(MAX_SPAWNLETS)
    ->Setup(grow_a_little)
    ->Teardown(shrink)
    ->UseManualTime()
    ->Iterations(3);
