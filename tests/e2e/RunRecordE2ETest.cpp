// The run record that runs of the installed orvane leave under the
// sandbox's /var/log/orvane: written by every mode that executes plugins and
// by none other, whole lines even when orvane is killed midway, and never a
// reason for a run to fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <filesystem>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

namespace json = boost::json;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class RunRecordE2E : public OrvaneRunTest {
 protected:
  void SetUp() override {
    OrvaneRunTest::SetUp();
    if (IsSkipped()) return;
    InstallRecordingCommands(*sandbox_);
  }

  /// A run as a boot would make it: without the socket file of the last
  /// run's executor.
  RunResult Boot(std::vector<std::string> options) {
    if (sandbox_->Exists(kExecutorSocket)) sandbox_->Remove(kExecutorSocket);
    return Orvane(std::move(options));
  }

  /// The lines of the newest record, each parsed.
  std::vector<json::object> Record() {
    std::vector<json::object> lines;
    for (const std::string& line : Lines(sandbox_->ReadFile(kLastRecord))) {
      lines.push_back(json::parse(line).as_object());
    }
    return lines;
  }

  /// The names of the records in the runs directory.
  std::vector<std::string> RecordNames() {
    std::vector<std::string> names;
    const auto runs = sandbox_->HostPath(std::string(kRecordDirectory) + "/runs");
    if (!std::filesystem::exists(runs)) return names;
    for (const auto& entry : std::filesystem::directory_iterator(runs)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::string Type(const json::object& line) {
    return std::string(line.at("type").as_string());
  }

  /// "type name" for the events of @p lines, names looked up by id.
  static std::vector<std::string> Events(const std::vector<json::object>& lines) {
    std::map<std::int64_t, std::string> names;
    std::vector<std::string> events;
    for (const json::object& line : lines) {
      const std::string type = Type(line);
      if (type == "plugin" || type == "barrier") {
        names[line.at("id").as_int64()] = std::string(line.at("name").as_string());
      } else if (line.contains("id")) {
        events.push_back(type + " " + names[line.at("id").as_int64()]);
      }
    }
    return events;
  }
};

TEST_F(RunRecordE2E, PlainBootRecordsItsGraphAndEveryStepInOrder) {
  sandbox_->WriteFile(kDebugConfiguration,
                      "first::ready:echo first >> /tmp/record\n"
                      "second:ready::echo second >> /tmp/record\n");
  const RunResult result = Boot({});
  ASSERT_EQ(result.exitStatus, 0) << result.out;
  EXPECT_THAT(RecordNames(), ElementsAre(MatchesRegex("[0-9]{8}T[0-9]{6}Z-plain\\.jsonl")));
  // HostPath follows links, so the link is read in its directory.
  EXPECT_EQ(
      std::filesystem::read_symlink(sandbox_->HostPath(kRecordDirectory) / "last.jsonl").string(),
      "runs/" + RecordNames().front());

  const std::vector<json::object> lines = Record();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(Type(lines.front()), "header");
  EXPECT_EQ(lines.front().at("mode").as_string(), "plain");
  EXPECT_EQ(Type(lines[1]), "plugin");
  EXPECT_EQ(lines[1].at("kind").as_string(), "debug");
  EXPECT_EQ(lines[1].at("file").as_string(), kDebugConfiguration);
  EXPECT_EQ(Type(lines.back()), "end");
  EXPECT_EQ(lines.back().at("status").as_int64(), 0);
  EXPECT_THAT(Events(lines),
              ElementsAre("ready first", "start first", "finish first", "ready ready",
                          "barrier-done ready", "ready second", "start second", "finish second"));
}

TEST_F(RunRecordE2E, RefusedPluginFilesAreRecordedWithTheirReasons) {
  sandbox_->WriteFile(PluginFile("broken.json"), "{\"metadata\": 1}\n");
  sandbox_->WriteFile(PluginFile("good.json"),
                      R"({"metadata": {"version": 1, "requires": [], "provides": []},
                          "operations": {"start": ["test record --text good"]}})");
  ASSERT_EQ(Boot({"--disable-plugins=good"}).exitStatus, 0);
  std::map<std::string, std::string> refusals;
  for (const json::object& line : Record()) {
    if (Type(line) == "refused") {
      refusals[std::string(line.at("file").as_string())] = line.at("reason").as_string();
    }
  }
  EXPECT_EQ(refusals["broken.json"],
            "exception occurred whilst loading plugin broken.json: plugin "
            "`/usr/libexec/orvane/plugins/broken.json' is invalid: invalid metadata interface");
  EXPECT_EQ(refusals["good.json"], "due to blacklist");
}

TEST_F(RunRecordE2E, EveryModeThatRunsPluginsLeavesARecordNamedAfterIt) {
  sandbox_->WriteFile(kDebugConfiguration, "inj:::true\n");
  sandbox_->WriteFile(kServiceTool, "#!/bin/sh\n", 0755);
  ASSERT_EQ(Boot({"--init"}).exitStatus, 0);
  ASSERT_EQ(Boot({"--invoke", "--method=start", "--plugin=inj.debug"}).exitStatus, 0);
  ASSERT_EQ(Boot({"--daemon", "--method=start"}).exitStatus, 0);
  ASSERT_EQ(Boot({"--dump-dependency-tree=/tmp/graph.dot"}).exitStatus, 0);
  std::vector<std::string> modes;
  for (const std::string& name : RecordNames()) {
    modes.push_back(name.substr(name.find('-') + 1));
  }
  std::sort(modes.begin(), modes.end());
  // Runs within one second get "-2", "-3"... after the mode.
  ASSERT_EQ(modes.size(), 3u) << ::testing::PrintToString(RecordNames());
  EXPECT_THAT(modes[0], MatchesRegex("daemon(-[0-9]+)?\\.jsonl"));
  EXPECT_THAT(modes[1], MatchesRegex("init(-[0-9]+)?\\.jsonl"));
  EXPECT_THAT(modes[2], MatchesRegex("invoke(-[0-9]+)?\\.jsonl"));
}

// The injection kills orvane itself while the boot is under way: what was
// recorded by then is a run of whole lines without an end.
TEST_F(RunRecordE2E, RunKilledMidwayLeavesWholeLinesWithoutAnEnd) {
  sandbox_->WriteFile(kDebugConfiguration,
                      "before::b:true\n"
                      "killer:b:k:kill -KILL $PPID; sleep 5\n"
                      "after:k::true\n");
  const RunResult result = Boot({});
  EXPECT_EQ(result.termSignal, SIGKILL);
  const std::string text = sandbox_->ReadFile(kLastRecord);
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  const std::vector<json::object> lines = Record();
  EXPECT_NE(Type(lines.back()), "end");
  EXPECT_THAT(Events(lines), Contains("start killer"));
  EXPECT_THAT(Events(lines), ::testing::Not(Contains("start after")));
}

TEST_F(RunRecordE2E, RecordThatCannotBeWrittenIsReportedOnceAndTheBootGoesOn) {
  sandbox_->WriteFile(kRecordDirectory, "a file where the directory should be");
  sandbox_->WriteFile(kDebugConfiguration, "inj:::echo ran >> /tmp/record\n");
  const RunResult result = Boot({});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(Recorded(), ElementsAre("ran"));
  std::size_t reports = 0;
  for (const std::string& message : messages_) {
    if (message.starts_with("unable to write the run record: ")) ++reports;
  }
  EXPECT_EQ(reports, 1u) << ::testing::PrintToString(messages_);
  EXPECT_TRUE(SyslogHas(LOG_WARNING,
                        "unable to write the run record: cannot make "
                        "/var/log/orvane/runs: Not a directory"));
}

TEST_F(RunRecordE2E, HelpAndRefusedOptionsLeaveNoRecord) {
  EXPECT_EQ(Boot({"--help"}).exitStatus, 0);
  EXPECT_EQ(Boot({"--daemon", "--init"}).exitStatus, 1);
  EXPECT_THAT(RecordNames(), IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
