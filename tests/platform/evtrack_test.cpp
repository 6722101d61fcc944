#include "platform/evtrack.h"

#include "tests/support/jobs.h"

static void record(const std::string &text)
{
    const std::string bytes = std::string("\x65\0\0\0", 4) + text + std::string(1, '\0');
    evtrack_hist_event(0x730000, static_cast<uint32_t>(bytes.size()), bytes.data());
}

static linux_history_record entry;

static std::string next_text()
{
    static uint64_t cursor;
    return linux_history_read(&cursor, &entry) == 1 ? reinterpret_cast<const char *>(entry.record) + 4 : "-";
}

/* In its own process, because the history cannot be emptied. */
TEST(Evtrack, HistoryKeepsTheLatestRecordsOfAllProcesses)
{
    alone([] {
        EXPECT_NE(evtrack_hist_event_subtype_check(0x730000, 101), 0);
        EXPECT_EQ(linux_history_enable(1), 0);
        EXPECT_EQ(evtrack_hist_event_subtype_check(0x730000, 101), 0);
        record("parent");
        EXPECT_EQ(run_job([](void *) { return record("child"), 0; }).code, 0u);
        linux_history_enable(0);
        record("off");
        EXPECT_EQ(next_text(), "parent");
        EXPECT_TRUE(entry.pid == getpid() && entry.length == 11 && entry.event_class == 0x730000);
        EXPECT_EQ(next_text(), "child");
        EXPECT_NE(entry.pid, getpid());
        linux_history_enable(1);
        for (int i = 3; i <= 3 * LINUX_HISTORY_RECORDS; i++)
            record(std::to_string(i));
        for (uint64_t i = 2 * LINUX_HISTORY_RECORDS + 1; i <= 3 * LINUX_HISTORY_RECORDS; i++)
            EXPECT_TRUE(next_text() == std::to_string(i) && entry.sequence == i) << i;
        EXPECT_EQ(next_text(), "-");
        record(std::string(600, 'x'));
        EXPECT_EQ(next_text(), std::string(LINUX_HISTORY_BYTES - 5, 'x'));
        EXPECT_EQ(entry.length, uint32_t{LINUX_HISTORY_BYTES});
    });
}

TEST(Evtrack, DebugPrintWritesOneLinePerMessageIfThereIsAReader)
{
    alone([] {
        int ends[2];
        char text[100] = "";
        EXPECT_EQ(evtrack_chk_int(101, 0, 0, 1), 0);
        linux_debug_enable(1);
        EXPECT_NE(evtrack_chk_int(101, 0, 0, 1), 0);
        EXPECT_TRUE(pipe(ends) == 0 && dup2(ends[1], 2) == 2);
        dbgemit(1, &evtrack_dbg_modname, 0, "%s", "one with an end\n");
        dbgemit(1, &evtrack_dbg_modname, 0, "%d without", 2);
        EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
        EXPECT_STREQ(text, "dnscache: one with an end\ndnscache: 2 without\n");
        close(ends[0]);
        EXPECT_EQ(dbgemit(1, &evtrack_dbg_modname, 0, "the pipe is closed"), 0);
        dup2(open("/dev/null", O_RDONLY), 2);
        errno = 0;
        EXPECT_LT(dbgemit(1, &evtrack_dbg_modname, 0, "write() fails"), 0);
        EXPECT_EQ(errno, 0);
    });
}
