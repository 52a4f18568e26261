#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "orvaner/RunOptions.h"
#include "orvaner/run/CommandLine.h"
#include "orvaner/run/RunState.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Parses a command line into fresh records, as main does at start.
struct Parsed {
  ParseOutcome outcome;
  RunOptions options;
  RunState state;
};

Parsed Parse(std::initializer_list<std::string> words) {
  std::vector<std::string> storage{"orvane"};
  storage.insert(storage.end(), words);
  std::vector<char*> argv;
  for (std::string& word : storage) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  Parsed parsed{ParseOutcome::Run, {}, {}};
  parsed.outcome =
      ParseCommandLine(static_cast<int>(storage.size()), argv.data(), parsed.options, parsed.state);
  return parsed;
}

Combination Check(std::initializer_list<std::string> words) {
  Parsed parsed = Parse(words);
  EXPECT_EQ(parsed.outcome, ParseOutcome::Run);
  return CheckCombination(parsed.options, parsed.state);
}

TEST(CommandLine, NoOptionsLeaveTheDefaults) {
  Parsed parsed = Parse({});
  EXPECT_EQ(parsed.outcome, ParseOutcome::Run);
  EXPECT_FALSE(parsed.state.init);
  EXPECT_FALSE(parsed.state.daemon);
  EXPECT_FALSE(parsed.state.dump);
  EXPECT_EQ(parsed.state.pluginDirectory, "/usr/libexec/orvane/plugins");
  EXPECT_EQ(CheckCombination(parsed.options, parsed.state), Combination::Valid);
}

TEST(CommandLine, HelpAfterOtherOptionsEndsParsingAtOnce) {
  EXPECT_EQ(Parse({"--init", "--verbose", "--help"}).outcome, ParseOutcome::Help);
  EXPECT_EQ(Parse({"--daemon", "--method=restart", "-h"}).outcome, ParseOutcome::Help);
  // Parsing stops at --help: a bad option after it is never looked at.
  EXPECT_EQ(Parse({"--init", "--help", "--no-such-option"}).outcome, ParseOutcome::Help);
}

TEST(CommandLine, EachFlagSetsItsField) {
  Parsed parsed = Parse({"--init", "--trace", "--invoke", "--verbose", "--method=start"});
  EXPECT_TRUE(parsed.state.init);
  EXPECT_TRUE(parsed.options.trace);
  EXPECT_TRUE(parsed.options.invoke);
  EXPECT_TRUE(parsed.options.verbose);
  EXPECT_EQ(parsed.options.method, "start");
}

TEST(CommandLine, LaterMethodReplacesEarlier) {
  EXPECT_EQ(Parse({"--method=start", "--method", "stop"}).options.method, "stop");
}

TEST(CommandLine, OnlyTheLastPluginFlagsCounts) {
  Parsed parsed = Parse({"--plugin-flags=a,b", "--plugin-flags=c"});
  EXPECT_THAT(parsed.state.pluginFlags, ElementsAre("c"));
}

TEST(CommandLine, PluginFlagsAreASortedSetWithoutDuplicates) {
  Parsed parsed = Parse({"--plugin-flags=z,a,z,m"});
  EXPECT_THAT(parsed.state.pluginFlags, ElementsAre("a", "m", "z"));
}

TEST(CommandLine, ParallelThenInteractiveLeavesInteractive) {
  Parsed parsed = Parse({"--parallel", "--interactive"});
  EXPECT_TRUE(parsed.options.interactive);
  EXPECT_FALSE(parsed.options.parallel);
}

TEST(CommandLine, InteractiveThenParallelLeavesParallel) {
  Parsed parsed = Parse({"--interactive", "--parallel"});
  EXPECT_TRUE(parsed.options.parallel);
  EXPECT_FALSE(parsed.options.interactive);
}

TEST(CommandLine, RandomizeWithoutValueKeepsTheStartTimeSeed) {
  RunOptions defaults;
  Parsed parsed = Parse({"--randomize"});
  EXPECT_TRUE(parsed.options.randomize);
  // Both records were created within the same second or two.
  EXPECT_NEAR(static_cast<double>(parsed.options.randomSeed),
              static_cast<double>(defaults.randomSeed), 2.0);
}

TEST(CommandLine, RandomizeTakesASignedSeed) {
  EXPECT_EQ(Parse({"--randomize=-5"}).options.randomSeed, -5);
  EXPECT_EQ(Parse({"--randomize=+7"}).options.randomSeed, 7);
  EXPECT_EQ(Parse({"--randomize=2147483647"}).options.randomSeed, 2147483647);
  EXPECT_EQ(Parse({"--randomize=-2147483648"}).options.randomSeed, -2147483648LL);
}

TEST(CommandLine, RandomizeWithABadSeedStaysOnAndKeepsTheSeed) {
  for (const char* word : {"--randomize=abc", "--randomize=", "--randomize=2147483648",
                           "--randomize=12x", "--randomize=1.5"}) {
    RunOptions defaults;
    Parsed parsed = Parse({word});
    EXPECT_TRUE(parsed.options.randomize) << word;
    EXPECT_NEAR(static_cast<double>(parsed.options.randomSeed),
                static_cast<double>(defaults.randomSeed), 2.0)
        << word;
  }
}

TEST(CommandLine, RandomizeSeedOnlyInTheEqualsForm) {
  // An optional argument must be attached; "5" is a plain argument, ignored.
  RunOptions defaults;
  Parsed parsed = Parse({"--randomize", "5"});
  EXPECT_TRUE(parsed.options.randomize);
  EXPECT_NE(parsed.options.randomSeed, 5);
  EXPECT_NEAR(static_cast<double>(parsed.options.randomSeed),
              static_cast<double>(defaults.randomSeed), 2.0);
}

TEST(CommandLine, DaemonWaitTimeoutReadsAnUnsignedNumber) {
  EXPECT_EQ(Parse({"--daemon-wait-timeout=12"}).options.daemonWaitTimeout, 12u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout", "0"}).options.daemonWaitTimeout, 0u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout=4294967295"}).options.daemonWaitTimeout, 4294967295u);
}

TEST(CommandLine, DaemonWaitTimeoutNegatesALeadingMinusModulo2To32) {
  EXPECT_EQ(Parse({"--daemon-wait-timeout=-1"}).options.daemonWaitTimeout, 4294967295u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout=-40"}).options.daemonWaitTimeout, 4294967256u);
}

TEST(CommandLine, DaemonWaitTimeoutThatIsNoNumberKeeps40) {
  EXPECT_EQ(Parse({"--daemon-wait-timeout=abc"}).options.daemonWaitTimeout, 40u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout="}).options.daemonWaitTimeout, 40u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout=4294967296"}).options.daemonWaitTimeout, 40u);
  EXPECT_EQ(Parse({"--daemon-wait-timeout=9", "--daemon-wait-timeout=x"}).options.daemonWaitTimeout,
            9u);
}

TEST(CommandLine, DaemonWaitIsExactlyWaitCaseSensitive) {
  EXPECT_TRUE(Parse({"--daemon=wait"}).options.daemonWait);
  EXPECT_FALSE(Parse({"--daemon=WAIT"}).options.daemonWait);
  EXPECT_FALSE(Parse({"--daemon=nowait"}).options.daemonWait);
  EXPECT_FALSE(Parse({"--daemon"}).options.daemonWait);
  EXPECT_TRUE(Parse({"--daemon"}).state.daemon);
}

TEST(CommandLine, DaemonWithoutValueLeavesAnEarlierWait) {
  EXPECT_TRUE(Parse({"--daemon=wait", "--daemon"}).options.daemonWait);
  EXPECT_FALSE(Parse({"--daemon=wait", "--daemon=nowait"}).options.daemonWait);
}

TEST(CommandLine, CommaListsDropEmptyItemsAndTrimNothing) {
  EXPECT_THAT(SplitCommaList("a,,b"), ElementsAre("a", "b"));
  EXPECT_THAT(SplitCommaList(""), IsEmpty());
  EXPECT_THAT(SplitCommaList(",,,"), IsEmpty());
  EXPECT_THAT(SplitCommaList(" a , b"), ElementsAre(" a ", " b"));
}

TEST(CommandLine, ListOptionsAccumulateInOrderWithRepeats) {
  Parsed parsed =
      Parse({"--plugin=b,a", "--plugin=b", "--disable-plugins=x,,y", "--disable-plugins=x",
             "--interactive-mode-requires=n,m", "--interactive-mode-requires="});
  EXPECT_THAT(parsed.state.pluginList, ElementsAre("b", "a", "b"));
  EXPECT_THAT(parsed.options.disabledPlugins, ElementsAre("x", "y", "x"));
  EXPECT_THAT(parsed.options.interactiveModeRequires, ElementsAre("n", "m"));
}

TEST(CommandLine, RunOnceAccumulatesIntoASortedSet) {
  Parsed parsed = Parse({"--run-once=b,a", "--run-once=b,c"});
  EXPECT_THAT(parsed.state.runOnce, ElementsAre("a", "b", "c"));
}

TEST(CommandLine, PluginDirectoryReplacesTheDefault) {
  EXPECT_EQ(Parse({"--plugin-directory=/tmp/plugins"}).state.pluginDirectory, "/tmp/plugins");
}

TEST(CommandLine, DumpDependencyTreeTakesAPathOnlyAfterEquals) {
  Parsed withPath = Parse({"--dump-dependency-tree=/tmp/graph.dot"});
  EXPECT_TRUE(withPath.state.dump);
  EXPECT_EQ(withPath.state.dumpPath, "/tmp/graph.dot");

  Parsed withoutPath = Parse({"--dump-dependency-tree", "/tmp/graph.dot"});
  EXPECT_TRUE(withoutPath.state.dump);
  EXPECT_FALSE(withoutPath.state.dumpPath.has_value());
}

TEST(CommandLine, ArgumentsThatAreNotOptionsAreIgnored) {
  Parsed parsed = Parse({"stray", "--init", "words"});
  EXPECT_EQ(parsed.outcome, ParseOutcome::Run);
  EXPECT_TRUE(parsed.state.init);
}

/// The outcome of a parse and what getopt_long printed on standard error.
std::pair<ParseOutcome, std::string> ParseCapturingStderr(
    std::initializer_list<std::string> words) {
  ::testing::internal::CaptureStderr();
  ParseOutcome outcome = Parse(words).outcome;
  return {outcome, ::testing::internal::GetCapturedStderr()};
}

TEST(CommandLine, UnknownOptionIsAUsageErrorWithGetoptsDiagnostic) {
  auto [outcome, diagnostic] = ParseCapturingStderr({"--bogus"});
  EXPECT_EQ(outcome, ParseOutcome::UsageError);
  EXPECT_THAT(diagnostic, HasSubstr("unrecognized option '--bogus'"));
}

TEST(CommandLine, UnknownShortOptionIsAUsageError) {
  auto [outcome, diagnostic] = ParseCapturingStderr({"-x"});
  EXPECT_EQ(outcome, ParseOutcome::UsageError);
  EXPECT_THAT(diagnostic, HasSubstr("invalid option -- 'x'"));
}

TEST(CommandLine, MissingRequiredArgumentIsAUsageError) {
  auto [outcome, diagnostic] = ParseCapturingStderr({"--method"});
  EXPECT_EQ(outcome, ParseOutcome::UsageError);
  EXPECT_THAT(diagnostic, HasSubstr("option '--method' requires an argument"));
}

TEST(CommandLine, ArgumentGivenToAFlagIsAUsageError) {
  auto [outcome, diagnostic] = ParseCapturingStderr({"--init=yes"});
  EXPECT_EQ(outcome, ParseOutcome::UsageError);
  EXPECT_THAT(diagnostic, HasSubstr("option '--init' doesn't allow an argument"));
}

TEST(CommandLine, ParsingTwiceStartsAfresh) {
  // getopt keeps state between calls; every parse must start at the first word.
  EXPECT_TRUE(Parse({"--init"}).state.init);
  EXPECT_TRUE(Parse({"--init"}).state.init);
}

TEST(CommandLineCombination, DaemonStartAndStopAreValid) {
  EXPECT_EQ(Check({"--daemon", "--method=start"}), Combination::Valid);
  EXPECT_EQ(Check({"--daemon=wait", "--method=stop"}), Combination::Valid);
  EXPECT_EQ(Check({"--daemon", "--method=start", "--dump-dependency-tree"}), Combination::Valid);
}

TEST(CommandLineCombination, DaemonWithAnotherMethodIsInvalid) {
  EXPECT_EQ(Check({"--daemon", "--method=restart"}), Combination::InvalidDaemonCombination);
  EXPECT_EQ(Check({"--daemon", "--method=START"}), Combination::InvalidDaemonCombination);
  EXPECT_EQ(Check({"--daemon"}), Combination::InvalidDaemonCombination);
}

TEST(CommandLineCombination, DaemonRefusesInitInvokeInteractiveAndPluginList) {
  EXPECT_EQ(Check({"--daemon", "--init", "--method=start"}), Combination::InvalidDaemonCombination);
  EXPECT_EQ(Check({"--daemon", "--invoke", "--method=start", "--plugin=a"}),
            Combination::InvalidDaemonCombination);
  EXPECT_EQ(Check({"--daemon", "--interactive", "--method=stop"}),
            Combination::InvalidDaemonCombination);
  EXPECT_EQ(Check({"--daemon", "--method=stop", "--plugin=a"}),
            Combination::InvalidDaemonCombination);
}

TEST(CommandLineCombination, DaemonAcceptsAnEmptyPluginListItem) {
  // "--plugin=," adds no plugin, so the list stays empty.
  EXPECT_EQ(Check({"--daemon", "--method=stop", "--plugin=,"}), Combination::Valid);
}

TEST(CommandLineCombination, InvokeNeedsAMethodAndAPluginList) {
  EXPECT_EQ(Check({"--invoke", "--method=start"}), Combination::InvokeIncomplete);
  EXPECT_EQ(Check({"--invoke", "--plugin=a"}), Combination::InvokeIncomplete);
  EXPECT_EQ(Check({"--invoke", "--method=start", "--plugin=a"}), Combination::Valid);
}

TEST(CommandLineCombination, InitInvokeAndDumpCombineFreely) {
  EXPECT_EQ(Check({"--init", "--invoke", "--method=start", "--plugin=a", "--dump-dependency-tree"}),
            Combination::Valid);
}

std::string ReadExpected(const char* name) {
  std::ifstream file(std::string(ORVANE_E2E_EXPECTED_DIR) + "/" + name, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

TEST(CommandLineUsage, PrintsTheUsageTextExactly) {
  ::testing::internal::CaptureStdout();
  PrintUsage();
  std::string printed = ::testing::internal::GetCapturedStdout();
  std::string expected = ReadExpected("usage.txt");
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(printed, expected);
  EXPECT_EQ(UsageLines().size(), 49u);
}

TEST(CommandLineUsage, UsageTextKeepsItsTrailingBlanks) {
  auto lines = UsageLines();
  EXPECT_STREQ(lines[8],
               "                            comma separated list of plugins to load (note that ");
  EXPECT_STREQ(lines.back(),
               "                            The default is 40 secs.                            ");
}

TEST(CommandLineUsage, HintNamesTheProgramAsInvoked) {
  ::testing::internal::CaptureStderr();
  PrintUsageHint("./bin/orvane");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "usage: ./bin/orvane --help for usage information\n");
}

}  // namespace
}  // namespace orvane
