#include <gtest/gtest.h>

#include "analyze/CommandLine.h"

namespace orvane::analyze::testing {
namespace {

/// The message of the UsageError that @p arguments raise; empty when none.
std::string UsageProblem(const std::vector<std::string>& arguments) {
  try {
    ParseCommandLine(arguments);
  } catch (const UsageError& error) {
    return error.what();
  }
  return {};
}

TEST(CommandLineTest, CommandWithTheDefaultRecord) {
  const CommandLine line = ParseCommandLine({"blame"});
  EXPECT_EQ(line.command, "blame");
  EXPECT_EQ(line.record, "/var/log/orvane/last.jsonl");
  EXPECT_FALSE(line.json);
  EXPECT_TRUE(line.operands.empty());
}

TEST(CommandLineTest, OptionsBeforeOrAfterTheCommandInEveryForm) {
  EXPECT_EQ(ParseCommandLine({"-r", "a.jsonl", "blame"}).record, "a.jsonl");
  EXPECT_EQ(ParseCommandLine({"blame", "-rb.jsonl"}).record, "b.jsonl");
  EXPECT_EQ(ParseCommandLine({"--record=c.jsonl", "plot"}).record, "c.jsonl");
  EXPECT_EQ(ParseCommandLine({"status", "--record", "d.jsonl"}).record, "d.jsonl");
  EXPECT_TRUE(ParseCommandLine({"trace", "--json"}).json);
  const CommandLine chain = ParseCommandLine({"--json", "critical-chain", "firewall"});
  EXPECT_EQ(chain.operands, std::vector<std::string>{"firewall"});
  EXPECT_TRUE(chain.json);
}

TEST(CommandLineTest, DoubleDashEndsOptions) {
  EXPECT_EQ(ParseCommandLine({"critical-chain", "--", "-odd-name"}).operands,
            std::vector<std::string>{"-odd-name"});
}

TEST(CommandLineTest, CompareAndAggregateTakeFilesAndAThreshold) {
  const CommandLine compare = ParseCommandLine({"compare", "--threshold", "2.5", "old", "new"});
  EXPECT_EQ(compare.operands, (std::vector<std::string>{"old", "new"}));
  EXPECT_EQ(compare.thresholdMicroseconds, 2500);
  EXPECT_EQ(ParseCommandLine({"compare", "--threshold=10", "a", "b"}).thresholdMicroseconds, 10000);
  EXPECT_EQ(ParseCommandLine({"aggregate", "a", "b", "c"}).operands.size(), 3u);
}

TEST(CommandLineTest, VerifyTakesARoot) {
  EXPECT_EQ(ParseCommandLine({"verify"}).root, "/");
  EXPECT_EQ(ParseCommandLine({"verify", "--root", "/tmp/tree"}).root, "/tmp/tree");
  EXPECT_EQ(ParseCommandLine({"--root=/srv", "verify"}).root, "/srv");
}

TEST(CommandLineTest, HelpNeedsNoCommand) {
  EXPECT_TRUE(ParseCommandLine({"--help"}).help);
  EXPECT_TRUE(ParseCommandLine({"-h", "nonsense"}).help);
}

TEST(CommandLineTest, UsageErrors) {
  EXPECT_EQ(UsageProblem({}), "no command given");
  EXPECT_EQ(UsageProblem({"bless"}), "unknown command \"bless\"");
  EXPECT_EQ(UsageProblem({"blame", "--colour"}), "unknown option \"--colour\"");
  EXPECT_EQ(UsageProblem({"blame", "-r"}), "-r needs a value");
  EXPECT_EQ(UsageProblem({"blame", "--record="}), "-r needs a record file");
  EXPECT_EQ(UsageProblem({"blame", "extra"}), "blame: too many arguments");
  EXPECT_EQ(UsageProblem({"critical-chain", "a", "b"}), "critical-chain: too many arguments");
  EXPECT_EQ(UsageProblem({"compare", "old"}), "compare: too few arguments");
  EXPECT_EQ(UsageProblem({"compare", "a", "b", "c"}), "compare: too many arguments");
  EXPECT_EQ(UsageProblem({"aggregate"}), "aggregate: too few arguments");
  EXPECT_EQ(UsageProblem({"compare", "-r", "x", "a", "b"}), "-r does not apply to compare");
  EXPECT_EQ(UsageProblem({"blame", "--threshold", "1"}), "--threshold applies only to compare");
  EXPECT_EQ(UsageProblem({"blame", "--root", "/"}), "--root applies only to verify");
  EXPECT_EQ(UsageProblem({"verify", "extra"}), "verify: too many arguments");
  for (const char* threshold : {"-1", "abc", "1e3", "0x10", "nan", "", "1.2.3", "86400001"}) {
    EXPECT_EQ(UsageProblem({"compare", "--threshold", threshold, "a", "b"}),
              std::string("--threshold takes milliseconds, a number from 0 to 86400000: \"") +
                  threshold + "\"");
  }
}

}  // namespace
}  // namespace orvane::analyze::testing
