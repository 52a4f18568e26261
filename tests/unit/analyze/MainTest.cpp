#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "TemporaryDirectory.h"
#include "analyze/CommandLine.h"
#include "analyze/Main.h"

namespace orvane::analyze::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class MainTest : public ::testing::Test {
 protected:
  /// Runs orvane-analyze with @p arguments; keeps what it wrote.
  int RunWith(const std::vector<std::string>& arguments) {
    out.str("");
    err.str("");
    return analyze::Run(arguments, out, err);
  }

  std::string RecordFile(const std::string& name, const std::string& content) {
    directory.Write(name, content);
    return directory / name;
  }

  unit_testing::TemporaryDirectory directory;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(MainTest, EveryCommandRunsOnARecordFile) {
  const std::string record = RecordFile("run.jsonl", kExampleRecord);
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"blame"},
                                             {"critical-chain"},
                                             {"critical-chain", "firewall"},
                                             {"plot"},
                                             {"trace"},
                                             {"status"}}) {
    for (const bool json : {false, true}) {
      std::vector<std::string> arguments = {"-r", record};
      arguments.insert(arguments.end(), command.begin(), command.end());
      if (json) {
        arguments.push_back("--json");
      }
      EXPECT_EQ(RunWith(arguments), 0) << command[0] << ": " << err.str();
      EXPECT_FALSE(out.str().empty()) << command[0];
      EXPECT_EQ(err.str(), "") << command[0];
    }
  }
  EXPECT_EQ(RunWith({"compare", record, record}), 0);
  EXPECT_THAT(out.str(), HasSubstr("total: 24.000ms -> 24.000ms (0\xC2\xB5s)"));
  EXPECT_EQ(RunWith({"aggregate", record, record, record}), 0);
  EXPECT_THAT(out.str(), StartsWith("3 records, 5 plugins"));
}

TEST_F(MainTest, StatusOfALiveRecordOnTheRealClock) {
  // The record's run started ten seconds ago.
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  std::string text = kLiveRecord;
  text.replace(text.find(std::to_string(kExampleStart)), std::to_string(kExampleStart).size(),
               std::to_string(now - 10'000'000));
  EXPECT_EQ(RunWith({"status", "-r", RecordFile("live.jsonl", text)}), 0);
  // The clock runs on while the command reads: the ages are at least what
  // they were when the record was written, and firewall, which started
  // 0.1 s into the run, is 0.1 s younger than the run.
  std::smatch run;
  std::smatch firewall;
  const std::string shown = out.str();
  ASSERT_TRUE(std::regex_search(shown, run, std::regex("has not ended: ([0-9]+\\.[0-9]+)")))
      << shown;
  ASSERT_TRUE(
      std::regex_search(shown, firewall, std::regex("held by firewall running ([0-9]+\\.[0-9]+)")))
      << shown;
  const double runAge = std::stod(run[1]);
  const double firewallAge = std::stod(firewall[1]);
  EXPECT_GE(runAge, 10.0);
  EXPECT_LT(runAge, 10.0 + 600) << "a ten-minute guard, far beyond any pause of this test";
  EXPECT_NEAR(runAge - firewallAge, 0.1, 0.1 + 1e-9);
}

TEST_F(MainTest, BadRecordsGiveOneLineNamingTheFileAndStatus1) {
  const std::string missing = directory / "missing.jsonl";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {missing, missing + ": cannot be opened: No such file or directory"},
      {RecordFile("empty.jsonl", ""), directory / "empty.jsonl" + ": the record is empty"},
      {RecordFile("cut.jsonl", kLiveRecord + "{\"type\":\"fin"),
       directory / "cut.jsonl" + ": cut off: line 26, the last, is not a complete JSON object"},
      {RecordFile("foreign.jsonl", "<html>\n"),
       directory / "foreign.jsonl" + ": not a run record: line 1 is not JSON"},
  };
  for (const auto& [path, message] : cases) {
    for (const char* command : {"blame", "critical-chain", "plot", "trace", "status"}) {
      EXPECT_EQ(RunWith({command, "-r", path}), 1) << command;
      EXPECT_EQ(err.str(), "orvane-analyze: " + message + "\n") << command;
      EXPECT_EQ(out.str(), "") << command;
    }
  }
}

TEST_F(MainTest, CompareAndAggregateNameTheBadOne) {
  const std::string good = RecordFile("good.jsonl", kExampleRecord);
  const std::string bad = RecordFile("bad.jsonl", kHeaderLine + "{\n");
  EXPECT_EQ(RunWith({"compare", good, bad}), 1);
  EXPECT_EQ(err.str(), "orvane-analyze: " + bad +
                           ": cut off: line 2, the last, is not a complete JSON object\n");
  EXPECT_EQ(RunWith({"aggregate", good, bad, good}), 1);
  EXPECT_THAT(err.str(), StartsWith("orvane-analyze: " + bad + ": "));
}

TEST_F(MainTest, UnknownPluginOfCriticalChainIsStatus1) {
  EXPECT_EQ(RunWith({"critical-chain", "nosuch", "-r", RecordFile("run.jsonl", kExampleRecord)}),
            1);
  EXPECT_EQ(err.str(),
            "orvane-analyze: " + (directory / "run.jsonl") + ": no plugin named \"nosuch\"\n");
}

TEST_F(MainTest, UsageErrorIsStatus2WithTheUsage) {
  EXPECT_EQ(RunWith({"blame", "--colour"}), 2);
  EXPECT_EQ(err.str(), std::string("orvane-analyze: unknown option \"--colour\"\n") + kUsage);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(RunWith({}), 2);
  EXPECT_EQ(RunWith({"compare", "one"}), 2);
}

TEST_F(MainTest, HelpIsTheUsageOnStandardOutput) {
  EXPECT_EQ(RunWith({"--help"}), 0);
  EXPECT_EQ(out.str(), kUsage);
  EXPECT_EQ(err.str(), "");
}

TEST_F(MainTest, OutputThatCannotBeWrittenIsStatus1) {
  out.setstate(std::ios::badbit);
  EXPECT_EQ(analyze::Run({"blame", "-r", RecordFile("run.jsonl", kExampleRecord)}, out, err), 1);
  EXPECT_EQ(err.str(), "orvane-analyze: cannot write the output\n");
}

}  // namespace
}  // namespace orvane::analyze::testing
