// Runs of the installed orvane on the sandboxed host with JSON plugins from
// the plugin directory: their commands go through the executor process to
// command definitions whose programs record what they were asked, in
// dependency order with injections from the debug configuration; failing
// commands, the host profile, and broken descriptions that must not take
// the boot with them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
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

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A version-1 description.
std::string Description(const std::vector<std::string>& required,
                        const std::vector<std::string>& provided,
                        const std::vector<std::string>& start) {
  return "{\"metadata\": {\"version\": 1, \"requires\": " + JsonList(required) +
         ", \"provides\": " + JsonList(provided) +
         "},\n \"operations\": {\"start\": " + JsonList(start) + "}}\n";
}

/// The command line that records @p text.
std::string Record(const std::string& text) { return "test record --text " + text; }

class JSONPluginE2E : public OrvaneRunTest {
 protected:
  void SetUp() override {
    OrvaneRunTest::SetUp();
    if (IsSkipped()) return;
    InstallRecordingCommands(*sandbox_);
  }

  void WritePlugin(const std::string& fileName, const std::string& content) {
    sandbox_->WriteFile(PluginFile(fileName), content);
  }

  /// The load-failure text of @p fileName with @p reason.
  static std::string LoadFailure(const std::string& fileName, const std::string& reason) {
    return "exception occurred whilst loading plugin " + fileName + ": plugin `" +
           PluginFile(fileName) + "' is invalid: " + reason;
  }

  /// Expects the load failure of @p fileName with @p reason as a system
  /// alert, a standard-output message and a syslog warning.
  void ExpectLoadFailure(const std::string& fileName, const std::string& reason) {
    const std::string text = LoadFailure(fileName, reason);
    EXPECT_THAT(KernelLog(), Contains("<1>orvane: " + text));
    EXPECT_THAT(messages_, Contains(text));
    EXPECT_TRUE(SyslogHas(LOG_WARNING, text)) << text;
  }
};

TEST_F(JSONPluginE2E, StartCommandsRunThroughTheExecutorInDependencyOrderWithInjections) {
  // Named against their order: inj needs b, which needs a.
  WritePlugin("b.json", Description({"after-a"}, {"after-b"}, {Record("b1"), Record("b2")}));
  WritePlugin("a.json", Description({}, {"after-a"}, {Record("a1"), Record("a2"), Record("a3")}));
  sandbox_->WriteFile(kDebugConfiguration, "inj:after-b::echo inj >> /tmp/record\n");
  RunResult result = Orvane({"--plugin=inj.debug,b.json,a.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("a1", "a2", "a3", "b1", "b2", "inj"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin a.", "Orvane plugin a activated.",
                          "Activating Orvane plugin b.", "Orvane plugin b activated.",
                          "Activating Orvane plugin inj.", "Orvane plugin inj activated."));
}

TEST_F(JSONPluginE2E, ParallelRunKeepsTheDependencyOrder) {
  WritePlugin("second.json", Description({"gate"}, {}, {Record("second")}));
  WritePlugin("first.json", Description({}, {"gate"}, {Record("first")}));
  WritePlugin("free.json", Description({}, {}, {Record("free")}));
  RunResult result = Orvane({"--parallel", "--plugin=second.json,free.json,first.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  std::vector<std::string> recorded = Recorded();
  ASSERT_EQ(recorded.size(), 3u);
  EXPECT_LT(std::find(recorded.begin(), recorded.end(), "first"),
            std::find(recorded.begin(), recorded.end(), "second"));
  EXPECT_NE(std::find(recorded.begin(), recorded.end(), "free"), recorded.end());
}

TEST_F(JSONPluginE2E, FailingCommandFailsTheActivationAfterTheOthersRan) {
  WritePlugin("c.json", Description({}, {"c-done"}, {Record("one"), "test fail", Record("three")}));
  WritePlugin("d.json", Description({"c-done"}, {}, {Record("after")}));
  RunResult result = Orvane({"--plugin=c.json,d.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("one", "three", "after"));
  const std::string failure = "c->start() failed: error while executing the cli";
  EXPECT_THAT(
      Activations(),
      ElementsAre("Activating Orvane plugin c.", "Orvane plugin c activation failed: " + failure,
                  "Activating Orvane plugin d.", "Orvane plugin d activated."));
  EXPECT_THAT(messages_, Contains("Executor failed executing qorcli command: test fail"));
  EXPECT_TRUE(SyslogHas(LOG_ERR, "Executor failed executing qorcli command: test fail"));
  EXPECT_THAT(messages_, Contains("Method invocation failed: " + failure));
}

TEST_F(JSONPluginE2E, BrokenDescriptionIsAlertedAndTheBootGoesOnWithoutIt) {
  WritePlugin("broken.json", "{\"metadata\": {\"version\": 1, \"requires\": [");
  WritePlugin("good.json", Description({}, {}, {Record("good")}));
  RunResult result = Orvane({"--plugin=broken.json,good.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  ExpectLoadFailure("broken.json", "plugin root is not an object");
  EXPECT_THAT(Recorded(), ElementsAre("good"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin good.", "Orvane plugin good activated."));
}

TEST_F(JSONPluginE2E, LateFailureLeavesItsBarriersAndTheirRequirersStillRun) {
  // "late" provides "gate" and then fails; "waiter" requires "gate" and
  // must neither hang nor be held back.
  WritePlugin("late.json",
              "{\"metadata\": {\"version\": 3, \"requires\": [], \"provides\": [\"gate\"],"
              " \"run_once\": false}, \"operations\": {\"start\": []}}");
  WritePlugin("waiter.json", Description({"gate"}, {}, {Record("waiter")}));
  RunResult result = Orvane({"--plugin=late.json,waiter.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  ExpectLoadFailure("late.json", "metadata is corrupt (unable to parse plugin_version)");
  EXPECT_THAT(Recorded(), ElementsAre("waiter"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin waiter.", "Orvane plugin waiter activated."));
}

TEST_F(JSONPluginE2E, BadInputOfEveryKindIsReportedAndTheRestRuns) {
  struct BadFile {
    std::string name;
    std::string content;
    std::string reason;
  };
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::string good = Description({}, {}, {Record("good")});
  const std::vector<BadFile> badFiles = {
      {"truncated.json", good.substr(0, good.size() / 2), "plugin root is not an object"},
      {"binary.json",
       std::string("\x7f"
                   "ELF\x02\x01\x01\0\0\0\0\xff\xfe",
                   13),
       "plugin root is not an object"},
      {"deep.json", deep, "description nests deeper than 64 levels"},
      {"comments.json", "// nothing but\n/* comments */\n", "plugin root is not an object"},
      {"empty.json", "", "plugin root is not an object"},
      {"huge-exponent.json",
       "{\"metadata\": {\"version\": 1e400, \"requires\": [], \"provides\": []}}",
       "Unsupported API version"},
      {"negative.json", "{\"metadata\": {\"version\": -1, \"requires\": [], \"provides\": []}}",
       "Unsupported API version"},
      {"wide.json",
       "{\"metadata\": {\"version\": 1099511627776, \"requires\": [], \"provides\": []}}",
       "Unsupported API version"},
      {"wrapping.json",
       "{\"metadata\": {\"version\": 4294967297, \"requires\": [], \"provides\": []}}",
       "Unsupported API version"},
      {"text-version.json",
       "{\"metadata\": {\"version\": \"1\", \"requires\": [], \"provides\": []}}",
       "metadata is corrupt (unable to parse version)"},
  };
  std::string names;
  for (const BadFile& bad : badFiles) {
    WritePlugin(bad.name, bad.content);
    names += bad.name + ",";
  }
  // 100 MB, sparse: refused by its size before anything is read.
  WritePlugin("huge.json", "");
  std::filesystem::resize_file(sandbox_->HostPath(PluginFile("huge.json")), 100 * 1024 * 1024);
  WritePlugin("good.json", good);
  RunResult result = Orvane({"--plugin=" + names + "huge.json,missing.json,good.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(result.termSignal, 0);
  for (const BadFile& bad : badFiles) {
    ExpectLoadFailure(bad.name, bad.reason);
  }
  ExpectLoadFailure("huge.json", "description is larger than 16777216 bytes");
  ExpectLoadFailure("missing.json", "no such file or directory");
  EXPECT_THAT(Recorded(), ElementsAre("good"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin good.", "Orvane plugin good activated."));
}

TEST_F(JSONPluginE2E, HostProfilePresentRunsTheHostProfileCommandsInsteadOfStart) {
  WritePlugin("profiled.json",
              "{\"metadata\": {\"version\": 2, \"requires\": [], \"provides\": []},"
              " \"operations\": {\"start\": [\"" +
                  Record("start") +
                  "\"],"
                  " \"apply_host_profile\": [\"" +
                  Record("profile1") + "\", \"" + Record("profile2") + "\"]}}");
  // Version 1: its host-profile list is not read, so it starts.
  WritePlugin("old.json",
              "{\"metadata\": {\"version\": 1, \"requires\": [], \"provides\": []},"
              " \"operations\": {\"start\": [\"" +
                  Record("oldstart") +
                  "\"],"
                  " \"apply_host_profile\": [\"" +
                  Record("oldprofile") + "\"]}}");
  sandbox_->WriteFile(kHostProfile, "<hostprofile/>\n");
  RunResult result = Orvane({"--plugin=profiled.json,old.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("profile1", "profile2", "oldstart"));
  EXPECT_THAT(messages_, Contains("executing host profile plugin: profiled"));
  EXPECT_THAT(messages_, Contains("executing start plugin: old"));
}

TEST_F(JSONPluginE2E, WithoutHostProfileTheStartCommandsRun) {
  WritePlugin("profiled.json",
              "{\"metadata\": {\"version\": 2, \"requires\": [], \"provides\": []},"
              " \"operations\": {\"start\": [\"" +
                  Record("start") +
                  "\"],"
                  " \"apply_host_profile\": [\"" +
                  Record("profile") + "\"]}}");
  RunResult result = Orvane({"--plugin=profiled.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("start"));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("host profile"))));
}

TEST_F(JSONPluginE2E, PluginDirectoryOptionPicksWhereNamesAreFound) {
  sandbox_->WriteFile("/srv/plugins/elsewhere.json", Description({}, {}, {Record("elsewhere")}));
  RunResult result = Orvane({"--plugin-directory=/srv/plugins", "--plugin=elsewhere.json"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("elsewhere"));
}

}  // namespace
}  // namespace orvane::testing
