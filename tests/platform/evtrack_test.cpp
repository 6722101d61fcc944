#include "platform/evtrack.h"

#include "platform/platmgr.h"
#include "tests/support/jobs.h"

static void record(const std::string &text)
{
    const std::string bytes = std::string("\x65\0\0\0", 4) + text + std::string(1, '\0');
    evtrack_hist_event(0x730000, static_cast<uint32_t>(bytes.size()), bytes.data());
}

static std::string text_of(const linux_history_record &entry)
{
    return reinterpret_cast<const char *>(entry.record) + 4;
}

TEST(Evtrack, IsOffAtStart)
{
    EXPECT_NE(evtrack_hist_event_subtype_check(0x730000, 101), 0);
    EXPECT_EQ(evtrack_chk_int(101, 0, 0, 1), 0);
    record("lost");
    uint64_t cursor = 0;
    linux_history_record entry;
    EXPECT_EQ(linux_history_read(&cursor, &entry), 0);
    EXPECT_EQ(platmgr_partition_get(), 0u);
    linux_partition_set(70000);
    EXPECT_EQ(platmgr_partition_get(), 70000u);
}

TEST(Evtrack, HistoryIncludesRecordsOfChildren)
{
    ASSERT_EQ(linux_history_enable(1), 0);
    EXPECT_EQ(evtrack_hist_event_subtype_check(0x730000, 101), 0);
    record("parent");
    ASSERT_EQ(run_job([](void *) {
                  record("child");
                  return 0;
              }).code,
              0u);
    linux_history_enable(0);
    record("off");
    uint64_t cursor = 0;
    linux_history_record entry;
    ASSERT_EQ(linux_history_read(&cursor, &entry), 1);
    EXPECT_EQ(text_of(entry), "parent");
    EXPECT_EQ(entry.pid, getpid());
    EXPECT_EQ(entry.length, 11u);
    EXPECT_EQ(entry.event_class, 0x730000u);
    ASSERT_EQ(linux_history_read(&cursor, &entry), 1);
    EXPECT_EQ(text_of(entry), "child");
    EXPECT_NE(entry.pid, getpid());
    EXPECT_EQ(linux_history_read(&cursor, &entry), 0);
}

TEST(Evtrack, HistoryKeepsLatestRecordsAndCutsLongOnes)
{
    linux_history_enable(1);
    for (int i = 1; i <= LINUX_HISTORY_RECORDS + 10; i++)
        record(std::to_string(i));
    uint64_t cursor = 0;
    linux_history_record entry;
    for (int i = 11; i <= LINUX_HISTORY_RECORDS + 10; i++) {
        ASSERT_EQ(linux_history_read(&cursor, &entry), 1);
        EXPECT_EQ(text_of(entry), std::to_string(i));
        EXPECT_EQ(entry.sequence, static_cast<uint64_t>(i));
    }
    EXPECT_EQ(linux_history_read(&cursor, &entry), 0);
    record(std::string(600, 'x'));
    ASSERT_EQ(linux_history_read(&cursor, &entry), 1);
    EXPECT_EQ(entry.length, uint32_t{LINUX_HISTORY_BYTES});
    EXPECT_EQ(text_of(entry).size(), LINUX_HISTORY_BYTES - 5u);
}

TEST(Evtrack, DebugPrintWritesOneLinePerMessageAndNeverBlocks)
{
    linux_debug_enable(1);
    EXPECT_NE(evtrack_chk_int(101, 0, 0, 1), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int standard_error = dup(2);
    dup2(ends[1], 2);
    dbgemit(1, &evtrack_dbg_modname, 0, "%s", "one with an end\n");
    dbgemit(1, &evtrack_dbg_modname, 0, "%d without", 2);
    char text[100] = "";
    EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
    for (int i = 0; i < 10000; i++)
        dbgemit(1, &evtrack_dbg_modname, 0, "more than a pipe holds");
    close(ends[0]);
    dbgemit(1, &evtrack_dbg_modname, 0, "the pipe is closed");
    dup2(standard_error, 2);
    EXPECT_STREQ(text, "dnscache: one with an end\ndnscache: 2 without\n");
}
