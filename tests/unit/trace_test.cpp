#include "dnscache/diagnostics/trace.h"

#include "tests/support/fakes.h"

class Trace : public world_test
{
};

TEST_F(Trace, ReachesAllSinksInOrderWithTheSameText)
{
    fake.history_on = fake.debug_on = fake.marker_exists = true;
    dnscache_trace("somebody", 120, "two  blanks %d %s \n", 7, "x");
    EXPECT_EQ(fake.log, (lines{"H:two  blanks 7 x \n", "B:two  blanks 7 x \n", "fopen /tmp/dnscache.log.0 a",
                               "F:somebody() : 120 two  blanks 7 x \n", "P:two  blanks 7 x \n"}));
}

TEST_F(Trace, EntryAndExitReachThePlatformOnly)
{
    fake.history_on = fake.debug_on = fake.marker_exists = true;
    dnscache_trace_enter("somebody", 1);
    dnscache_trace_exit("somebody", 2);
    EXPECT_EQ(fake.log, (lines{"H:Entering : somebody : Line : 1", "B:Entering : somebody : Line : 1",
                               "H:Exiting: somebody , Line : 2", "B:Exiting: somebody , Line : 2"}));
}

TEST_F(Trace, EachSinkHasItsOwnCondition)
{
    TRACE("a");
    fake.history_on = true;
    TRACE("b");
    fake.history_on = false;
    fake.debug_on = true;
    TRACE("c");
    EXPECT_EQ(fake.log, (lines{"P:a", "H:b", "P:b", "B:c", "P:c"}));
    EXPECT_EQ(log_file, nullptr);
    EXPECT_STREQ(file_name, "");
}

TEST_F(Trace, HistoryTextIsCutAt511AndOthersAreNot)
{
    fake.history_on = fake.debug_on = true;
    const std::string text(600, 'x');
    TRACE("%s", text.c_str());
    EXPECT_EQ(fake.history_length, 516u);
    EXPECT_EQ(fake.log, (lines{"H:" + text.substr(0, 511), "B:" + text, "P:" + text}));
    TRACE("%s", "");
    EXPECT_EQ(fake.history_length, 5u);
    TRACE("ab%cd", 0);
    EXPECT_EQ(fake.history_length, 7u); /* the text ends at the zero byte, but only here */
    EXPECT_EQ(fake.log.back(), std::string("P:ab\0d", 6));
}

TEST_F(Trace, LogFileFollowsItsMarkerAndIsOpenedOnce)
{
    fake.marker_exists = true;
    fake.log_file_opens = false;
    fake.partition = 0x10002;
    TRACE("a");
    EXPECT_EQ(log_file, nullptr);
    EXPECT_STREQ(file_name, "/tmp/dnscache.log.2");
    fake.log_file_opens = true;
    fake.partition = 0xffff;
    TRACE("b");
    fake.partition = 5;
    fake.marker_exists = false;
    TRACE("c");
    fake.marker_exists = true;
    dnscache_trace("f", 1, "d");
    EXPECT_EQ(calls(), (lines{"fopen /tmp/dnscache.log.2 a", "fopen /tmp/dnscache.log.65535 a"}));
    EXPECT_EQ(logged("F:").size(), 2u); /* b and d; not c */
    EXPECT_EQ(logged("F:").back(), "f() : 1 d");
    EXPECT_EQ(traces(), (lines{"a", "b", "c", "d"}));
}
