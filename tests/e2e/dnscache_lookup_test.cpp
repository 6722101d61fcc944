/*
 * dnscache_lookup_test.cpp: the command-line host as its users see it: answers, messages, exit status. The
 * real program runs with a scripted resolver in its children (scripted_resolver.cpp has the names), so that
 * time-outs happen because a child never answers and not because somebody slept long enough.
 */
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using std::string_literals::operator""s;

struct run_result {
    int code;
    std::string out;
    std::string err;
};

static std::string contents(const std::string &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/* Runs a shell command in which "lookup" is the program. Only the program is preloaded, not the shell. */
static run_result run(const std::string &command, const std::string &input = "")
{
    char pattern[] = "/tmp/dnscache_lookup_test.XXXXXX";
    const std::string dir = mkdtemp(pattern);
    std::ofstream(dir + "/in") << input;
    std::ofstream(dir + "/sh")
        << "cd " << dir << "; exec <in >out 2>err\n"
        << "lookup() { ASAN_OPTIONS=verify_asan_link_order=0:$ASAN_OPTIONS SCRIPT_DIR=. "
        << "LD_PRELOAD='" SCRIPTED_RESOLVER "' '" LOOKUP_PROGRAM "' \"$@\"; }\n"
        << command << "\n";
    const int status = system(("sh " + dir + "/sh").c_str());
    run_result result = {WEXITSTATUS(status), contents(dir + "/out"), contents(dir + "/err")};
    std::filesystem::remove_all(dir);
    return result;
}

static bool is_clean(const std::string &text)
{
    for (const char c : text)
        if (c != '\n' && (c < ' ' || c > '~'))
            return false;
    return true;
}

/* JSON lines without the one member that differs from run to run. */
static std::string without_time(const std::string &lines)
{
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        g_autoptr(JsonNode) root = json_from_string(line.c_str(), nullptr);
        if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root))
            return "not a JSON object: " + line;
        EXPECT_GT(json_object_get_int_member_with_default(json_node_get_object(root), "elapsed_us", 0), 0);
        json_object_remove_member(json_node_get_object(root), "elapsed_us");
        g_autofree char *rest = json_to_string(root, FALSE);
        text += rest + "\n"s;
    }
    return text;
}

struct lookup_case {
    const char *name;
    const char *command;
    std::string input;
    int code;
    const char *out;
    const char *err; /* a pattern with * */
};

static void PrintTo(const lookup_case &one, std::ostream *out)
{
    *out << one.name;
}

#define PAIR "192.0.2.1       STREAM www.pair.test\n2001:db8::1     DGRAM  pair.test\n"
#define LATE "192.0.2.4       STREAM late.test\n"
#define JSON(host, port, result, source, addresses)                                                          \
    "{\"host\":\"" host "\",\"service\":\"" port "\",\"vrf\":0,\"result\":" result ",\"source\":" source     \
    ",\"addresses\":[" addresses "]}\n"
#define JSON_ADDRESS(text, numbers, port) "{\"address\":\"" text "\"," numbers ",\"port\":" port "}"
#define JSON_PAIR(port, source)                                                                              \
    JSON("pair.test", port, "0", "\"" source "\"",                                                           \
         JSON_ADDRESS("192.0.2.1", "\"family\":2,\"socktype\":1,\"protocol\":6", port) "," JSON_ADDRESS(     \
             "2001:db8::1", "\"family\":10,\"socktype\":2,\"protocol\":17", port))
#define JSON_LATE                                                                                            \
    JSON("late.test", "0", "0", "\"background\"",                                                            \
         JSON_ADDRESS("192.0.2.4", "\"family\":2,\"socktype\":1,\"protocol\":6", "0"))
#define JSON_FAILED(host, result) JSON(host, "0", result, "null", "")
#define NO_NAME ": Name or service not known\n"

static const lookup_case CASES[] = {
    {"PrintsOneLineAnAddress", "lookup pair.test", "", 0, PAIR, ""},
    {"PrintsOtherKinds", "lookup kinds.test", "", 0,
     "192.0.2.2       RAW    kinds.test\nfe80::2%7       5      kinds.test\n", ""},
    {"EscapesCanonicalName", "lookup evil.test", "", 0, "192.0.2.3       STREAM a\\033[2J\\n\\\"\\233\\377\n",
     ""},
    {"SecondTimeIsAHit", "lookup -n 2 -j -s 80 pair.test", "", 0,
     JSON_PAIR("80", "job") JSON_PAIR("80", "cache"), ""},
    {"WaitsForBackgroundJob", "lookup -t 1 --json late.test", "", 0, JSON_LATE, ""},
    {"BackgroundFailureIsFinal", "lookup -t 1 -j late-fail.test", "", 2, JSON_FAILED("late-fail.test", "-2"),
     "dnscache-lookup: late-fail.test" NO_NAME},
    {"BackgroundCrashMayBeTriedAgain", "lookup -t 1 -j late-crash.test", "", 3,
     JSON_FAILED("late-crash.test", "-3"), "dnscache-lookup: late-crash.test: *\n"},
    {"NoWaitLeavesItUnfinished", "lookup -t 1 --no-wait -n 2 -j stuck.test", "", 3,
     JSON_FAILED("stuck.test", "-3") JSON_FAILED("stuck.test", "1281"),
     "*: stuck.test: still*: stuck.test: job timed out\n"},
    {"TemporaryFailureIsNotWaitedFor", "lookup -j again.test", "", 2, JSON_FAILED("again.test", "-3"),
     "dnscache-lookup: again.test: Temporary failure in name resolution\n"},
    {"RefusedLookupIsOfTheWorstKind", "ulimit -n 8; lookup pair.test", "", 4, "", "*: pair.test: *refused*"},
    {"LargestCodeWins", "lookup -t 1 --no-wait stuck.test nosuch.test pair.test", "", 3, PAIR,
     "*stuck.test: *\n*nosuch.test" NO_NAME},
    {"AnswersOutliveAWait", "lookup -t 1 -j pair.test late.test pair.test", "", 0,
     JSON_PAIR("0", "job") JSON_LATE JSON_PAIR("0", "cache"), ""},
    {"LifetimeCountsFromTheNextLookupOn", "lookup -t 1 -l 0 -j pair.test late.test pair.test", "", 0,
     JSON_PAIR("0", "job") JSON_LATE JSON_PAIR("0", "job"), ""},
    {"LinesOverrideOptions", "lookup -j -s 25",
     "# all\n\n \t \npair.test\n\tpair.test  443# web\npair.test 443 0", 0,
     JSON_PAIR("25", "job") JSON_PAIR("443", "job") JSON_PAIR("443", "cache"), ""},
    {"RefusesHostileLinesAndAnswersTheRest", "lookup",
     "a\033[2Jb\ncaf\xc3\xa9.test\nx\0y\n"s + std::string(254, 'n') + "\n" + "pair.test" +
         std::string(5000, ' ') +
         "\npair.test 80 0 0\npair.test 65536\npair.test 000080\npair.test -1\npair.test 80 2147483648\n"
         "pair.test 80 1x\ncr.test\r\npair.test",
     2, PAIR,
     "*line 1: \"a\\033[2Jb\": *line 2: \"caf\\303\\251.test\": *line 3: *line 4: \"nnnn*n...\": *line 5: *"
     "line 6: \"0\": *line 7: \"65536\": *line 8: \"000080\": *line 9: \"-1\": *line 10: \"2147483648\": *"
     "line 11: \"1x\": *line 12: \"cr.test\\r\": *\n"},
    {"RefusesHostileArguments", "lookup '' '\033]0;x\a' 'a b' '\x7f' pair.test", "", 2, PAIR,
     "*: \"\": *: \"\\033]0;x\\007\": *: \"a b\": *: \"\\177\": *\n"},
    {"PrintsVersion", "lookup --version", "", 0, "dnscache-lookup 0.1.0\n", ""},
    {"EmptyInputIsNoError", "lookup", "", 0, "", ""},
    {"FullDiskIsReportedOnce", "lookup pair.test pair.test >/dev/full", "", 4, "",
     "dnscache-lookup: cannot write to standard output: No space left on device\n"},
    {"ClosedOutputIsReported", "lookup pair.test >&-", "", 4, "", "*: cannot write to standard output: *"},
    {"ClosedInputIsReported", "lookup <&-", "", 4, "", "dnscache-lookup: standard input: *"},
    {"ClosedStreamsDoNotDisturbAnswers", "lookup -v -t 1 pair.test late.test <&- 2>&-", "", 0, PAIR LATE, ""},
    {"TraceStaysOffTheAnswers", "lookup -v -n 2 -t 7 pair.test", "", 0, PAIR PAIR,
     "*timeout 7 secs*Found in Local Cache*"},
};

class Lookup : public testing::TestWithParam<lookup_case>
{
};

INSTANTIATE_TEST_SUITE_P(Program, Lookup, testing::ValuesIn(CASES),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_P(Lookup, GivesAnswersMessagesAndStatus)
{
    const run_result result = run(GetParam().command, GetParam().input);
    const bool json = result.out.rfind('{', 0) == 0;
    EXPECT_EQ(result.code, GetParam().code);
    EXPECT_EQ(json ? without_time(result.out) : result.out, GetParam().out);
    EXPECT_TRUE(is_clean(result.out + result.err)) << result.out << result.err;
    EXPECT_TRUE(g_pattern_match_simple(GetParam().err, result.err.c_str())) << result.err;
}

/* Whether an unknown VRF resolves is not looked at: the machine may forbid to leave its network. */
TEST(LookupVrf, SeparatesAnswers)
{
    const std::string out = run("lookup -j -V 8", "pair.test 80 7\npair.test 80\n").out;
    EXPECT_TRUE(g_pattern_match_simple("*\"vrf\":7,*\n*\"vrf\":8,*\n", out.c_str())) << out;
    EXPECT_EQ(out.find("cache"), std::string::npos) << out;
}

TEST(LookupUsage, ErrorsAnswerNothing)
{
    for (const char *options :
         {"-s 65536", "-s http", "-s ''", "-s 000080", "-V -1", "-V 2147483648", "-t 0", "-t 301", "-t 0x1",
          "-l -1", "-l ''", "-n 0", "-n", "--bogus", "--'\033[2J'"}) {
        const run_result result = run("lookup pair.test "s + options);
        EXPECT_EQ(result.code, 1) << options;
        EXPECT_EQ(result.out, "") << options;
        EXPECT_TRUE(g_pattern_match_simple("dnscache-lookup: *--help*\n", result.err.c_str())) << result.err;
        EXPECT_TRUE(is_clean(result.err)) << result.err;
    }
}

TEST(LookupTerminal, ShowsAndErasesTheWaitAndGivesNoRequests)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string terminal = ptsname(master);
    const int kept_open = open(terminal.c_str(), O_RDWR | O_NOCTTY);
    EXPECT_EQ(run("lookup -t 1 late.test 2>" + terminal).out, LATE);
    char shown[256] = "";
    EXPECT_GT(read(master, shown, sizeof shown - 1), 0);
    EXPECT_STREQ(shown, "dnscache-lookup: waiting for late.test\r\033[K");
    EXPECT_EQ(write(master, "\004", 1), 1) << "an end of file for a program that reads on";
    EXPECT_EQ(run("lookup <" + terminal).code, 1);
    close(kept_open);
    close(master);
}
