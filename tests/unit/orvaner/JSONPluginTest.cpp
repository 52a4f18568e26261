// JSON plugin descriptions: the schema, the order in which it is checked and
// the reason texts, the barriers a description links, the operations (with
// the executor process replaced by a recording sender), bad input, and the
// loader's handling of broken descriptions.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Node.h"
#include "orvaner/plugins/JSONPlugin.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// A JSON plugin whose command lines are recorded instead of being sent to
/// the executor process. A line listed in failing throws like a failed
/// command; one listed in failingOddly throws something that is not a
/// std::exception.
class RecordingJSONPlugin : public JSONPlugin {
 public:
  explicit RecordingJSONPlugin(std::string name) : JSONPlugin(std::move(name)) {}

  static std::unique_ptr<RecordingJSONPlugin> Load(const std::string& name, const std::string& path,
                                                   BarrierRegistry& registry) {
    return LoadAs<RecordingJSONPlugin>(name, path, registry);
  }

  std::vector<std::string> sent;
  std::set<std::string> failing;
  std::set<std::string> failingOddly;

 protected:
  void SendCommand(const std::string& commandLine) override {
    sent.push_back(commandLine);
    if (failing.contains(commandLine)) {
      throw Exception("Executor failed executing qorcli command: " + commandLine);
    }
    if (failingOddly.contains(commandLine)) {
      throw 42;
    }
  }
};

/// A minimal valid description of @p version with @p metadata and
/// @p operations members added and @p start as the start list.
std::string Description(int version, const std::string& metadata = "",
                        const std::string& operations = "", const std::string& start = "[]") {
  return R"({"metadata": {"version": )" + std::to_string(version) +
         R"(, "requires": [], "provides": [])" + (metadata.empty() ? "" : ", " + metadata) +
         R"(}, "operations": {"start": )" + start + (operations.empty() ? "" : ", " + operations) +
         "}}";
}

/// The version-3 keys that are required from version 3 on.
constexpr const char* kVersion3Keys = R"("run_once": false, "plugin_version": "1.0")";

/// Each test has its own barrier registry, so the barriers and the plugins
/// linked to them go with the test.
class JSONPluginTest : public ::testing::Test {
 protected:
  void SetUp() override { Log_Exit(); }

  std::string Write(const std::string& content, const std::string& name = "plugin.json") {
    temporary_.Write(name, content);
    return temporary_ / name;
  }

  /// Loads @p content as the plugin "test".
  std::unique_ptr<RecordingJSONPlugin> Load(const std::string& content) {
    return RecordingJSONPlugin::Load("test", Write(content), registry_);
  }

  /// The message of the exception thrown when @p content is loaded, or a
  /// text saying that none (or another kind) was thrown.
  std::string Refusal(const std::string& content, const std::string& name = "plugin.json") {
    const std::string path = Write(content, name);
    return RefusalOfPath(path);
  }

  std::string RefusalOfPath(const std::string& path) {
    try {
      RecordingJSONPlugin::Load("test", path, registry_);
    } catch (const InvalidPluginException& error) {
      return error.what();
    } catch (const std::exception& error) {
      return std::string("unexpected exception: ") + error.what();
    }
    return "loaded";
  }

  /// The reason part of the refusal of @p content.
  std::string Reason(const std::string& content) {
    const std::string prefix = "plugin `" + (temporary_ / "plugin.json") + "' is invalid: ";
    const std::string message = Refusal(content);
    return message.starts_with(prefix) ? message.substr(prefix.size()) : "(whole) " + message;
  }

  unit_testing::TemporaryDirectory temporary_;
  BarrierRegistry registry_;
};

// ---- what a valid description gives

TEST_F(JSONPluginTest, VersionOneDescriptionGivesNameVersionAndStartCommandsInOrder) {
  auto plugin = Load(R"({"metadata": {"version": 1, "requires": [], "provides": []},
                         "operations": {"start": ["b second", "a first", "c third"]}})");
  EXPECT_EQ(plugin->Name(), "test");
  EXPECT_EQ(plugin->GetApiVersion(), 1);
  EXPECT_THAT(plugin->StartCommands(), ElementsAre("b second", "a first", "c third"));
  EXPECT_FALSE(plugin->IsRunOnce());
  EXPECT_EQ(plugin->GetPluginVersion(), "");
  EXPECT_THAT(plugin->GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin->GetDisablingFlags(), IsEmpty());
  EXPECT_FALSE(plugin->SupportsHostProfile());
  EXPECT_EQ(plugin->State(), NodeState::Idle);
}

TEST_F(JSONPluginTest, CommentsOfBothKindsAreAllowed) {
  auto plugin = Load(R"(// a line comment before the root
    /* a block
       comment */
    {"metadata": {"version": 1, /* inside */ "requires": [], "provides": []}, // trailing
     "operations": {"start": ["one"]}}
    // after the root)");
  EXPECT_THAT(plugin->StartCommands(), ElementsAre("one"));
}

TEST_F(JSONPluginTest, UnknownKeysAreIgnoredEverywhere) {
  auto plugin = Load(R"({"extra": [1, {"x": null}], "metadata": {"version": 1, "requires": [],
    "provides": [], "colour": "blue"}, "operations": {"start": ["go"], "stop": ["halt"]}})");
  EXPECT_THAT(plugin->StartCommands(), ElementsAre("go"));
}

TEST_F(JSONPluginTest, KeysAreCaseSensitive) {
  EXPECT_EQ(Reason(R"({"Metadata": {"version": 1, "requires": [], "provides": []},
                       "operations": {"start": []}})"),
            "invalid metadata interface");
  EXPECT_EQ(Reason(R"({"metadata": {"Version": 1, "requires": [], "provides": []},
                       "operations": {"start": []}})"),
            "metadata is corrupt (unable to parse version)");
}

TEST_F(JSONPluginTest, FractionalVersionIsTruncatedTowardZero) {
  EXPECT_EQ(Load(R"({"metadata": {"version": 2.9, "requires": [], "provides": []},
                     "operations": {"start": []}})")
                ->GetApiVersion(),
            2);
  EXPECT_EQ(Load(R"({"metadata": {"version": 4.999, "requires": [], "provides": [],
                     "run_once": true, "plugin_version": "x"}, "operations": {"start": []}})")
                ->GetApiVersion(),
            4);
  EXPECT_EQ(Load(R"({"metadata": {"version": 1e0, "requires": [], "provides": []},
                     "operations": {"start": []}})")
                ->GetApiVersion(),
            1);
}

TEST_F(JSONPluginTest, VersionsOutsideOneToFourAreUnsupported) {
  for (const char* version :
       {"0", "5", "-1", "0.99", "-0.5", "4294967299", "1099511627776", "-1099511627776",
        "18446744073709551615", "99999999999999999999999", "1e400", "-1e400", "1e-400"}) {
    EXPECT_EQ(Reason(R"({"metadata": {"version": )" + std::string(version) +
                     R"(, "requires": [], "provides": []}, "operations": {"start": []}})"),
              "Unsupported API version")
        << version;
  }
}

TEST_F(JSONPluginTest, ZeroWithAnExponentBeyondADoubleIsVersionZeroAndUnsupported) {
  // The JSON parser makes NaN of these (zero times an infinite power of
  // ten); converting that to an integer was undefined behaviour.
  for (const char* version : {"0e400", "-0e400", "0.0e999", "0E+99999"}) {
    EXPECT_EQ(Reason(R"({"metadata": {"version": )" + std::string(version) +
                     R"(, "requires": [], "provides": []}, "operations": {"start": []}})"),
              "Unsupported API version")
        << version;
  }
}

TEST_F(JSONPluginTest, VersionThatIsNotANumberCannotBeParsed) {
  for (const char* version : {R"("3")", "true", "null", "[3]", R"({"v": 3})"}) {
    EXPECT_EQ(Reason(R"({"metadata": {"version": )" + std::string(version) +
                     R"(, "requires": [], "provides": []}, "operations": {"start": []}})"),
              "metadata is corrupt (unable to parse version)")
        << version;
  }
  EXPECT_EQ(
      Reason(R"({"metadata": {"requires": [], "provides": []}, "operations": {"start": []}})"),
      "metadata is corrupt (unable to parse version)");
}

// ---- what each API version reads

TEST_F(JSONPluginTest, VersionOneIgnoresTheKeysOfLaterVersions) {
  auto plugin =
      Load(Description(1, R"("run_once": true, "plugin_version": "2.0", "required_flags": ["a"],
            "disabling_flags": ["b"])",
                       R"("apply_host_profile": ["profile"])"));
  EXPECT_FALSE(plugin->IsRunOnce());
  EXPECT_EQ(plugin->GetPluginVersion(), "");
  EXPECT_THAT(plugin->GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin->GetDisablingFlags(), IsEmpty());
  EXPECT_THAT(plugin->HostProfileCommands(), IsEmpty());
  EXPECT_FALSE(plugin->SupportsHostProfile());
  try {
    plugin->ApplyHostProfile();
    ADD_FAILURE() << "ApplyHostProfile did not throw";
  } catch (const MethodFailedException& error) {
    ADD_FAILURE() << "a method failure instead: " << error.what();
  } catch (const NotImplementedException& error) {
    EXPECT_STREQ(error.what(), "method `json_plugin::ApplyHostProfile' is not implemented");
  }
  EXPECT_THAT(plugin->sent, IsEmpty());
}

TEST_F(JSONPluginTest, KeysOfLaterVersionsWithWrongTypesDoNotMatterBelowTheirVersion) {
  auto first = Load(Description(1, R"("run_once": "yes", "plugin_version": 7,
                                     "required_flags": "a", "disabling_flags": [1])",
                                R"("apply_host_profile": "profile")"));
  EXPECT_EQ(first->GetApiVersion(), 1);
  auto second =
      Load(Description(2, R"("run_once": "yes", "plugin_version": 7, "required_flags": "a")"));
  EXPECT_EQ(second->GetApiVersion(), 2);
}

TEST_F(JSONPluginTest, VersionTwoReadsTheHostProfileOperationButNotTheFlags) {
  auto plugin = Load(Description(2, R"("run_once": true, "required_flags": ["a"])",
                                 R"("apply_host_profile": ["p1", "p2"])"));
  EXPECT_TRUE(plugin->SupportsHostProfile());
  EXPECT_THAT(plugin->HostProfileCommands(), ElementsAre("p1", "p2"));
  EXPECT_FALSE(plugin->IsRunOnce());
  EXPECT_THAT(plugin->GetRequiredFlags(), IsEmpty());
}

TEST_F(JSONPluginTest, VersionTwoWithoutHostProfileOperationDoesNotSupportIt) {
  auto plugin = Load(Description(2));
  EXPECT_FALSE(plugin->SupportsHostProfile());
  EXPECT_THAT(plugin->HostProfileCommands(), IsEmpty());
}

TEST_F(JSONPluginTest, VersionsThreeAndFourReadFlagsRunOnceAndPluginVersion) {
  for (int version : {3, 4}) {
    auto plugin = Load(Description(version,
                                   R"("required_flags": ["r2", "r1", "r1"],
                                      "disabling_flags": ["d1"], "run_once": true,
                                      "plugin_version": "1.0 beta")",
                                   R"("apply_host_profile": ["p"])"));
    EXPECT_EQ(plugin->GetApiVersion(), version);
    EXPECT_THAT(plugin->GetRequiredFlags(), ElementsAre("r1", "r2"));
    EXPECT_THAT(plugin->GetDisablingFlags(), ElementsAre("d1"));
    EXPECT_TRUE(plugin->IsRunOnce());
    EXPECT_EQ(plugin->GetPluginVersion(), "1.0 beta");
    EXPECT_TRUE(plugin->SupportsHostProfile());
  }
}

TEST_F(JSONPluginTest, VersionThreeWithoutFlagsHasEmptySets) {
  auto plugin = Load(Description(3, kVersion3Keys));
  EXPECT_THAT(plugin->GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin->GetDisablingFlags(), IsEmpty());
  EXPECT_FALSE(plugin->IsRunOnce());
  EXPECT_EQ(plugin->GetPluginVersion(), "1.0");
}

TEST_F(JSONPluginTest, VersionThreeWithoutPluginVersionIsRefused) {
  EXPECT_EQ(Reason(Description(3, R"("run_once": false)")),
            "metadata is corrupt (unable to parse plugin_version)");
}

TEST_F(JSONPluginTest, VersionThreeWithoutRunOnceIsRefused) {
  EXPECT_EQ(Reason(Description(3, R"("plugin_version": "1")")),
            "metadata is corrupt (unable to parse run_once)");
}

// ---- every reason text

TEST_F(JSONPluginTest, MissingFileHasNoSuchFileOrDirectory) {
  const std::string path = temporary_ / "absent.json";
  EXPECT_EQ(RefusalOfPath(path), "plugin `" + path + "' is invalid: no such file or directory");
}

TEST_F(JSONPluginTest, RootThatIsNotAnObject) {
  for (const char* content :
       {"[]", "\"metadata\"", "3", "null", "", "   \n", "// only a comment\n", "/* only */",
        "{\"metadata\": {", "{\"metadata\": {\"version\": 1,}}", "{} {}", "{} trailing",
        "{'metadata': 1}", "/* unterminated comment"}) {
    EXPECT_EQ(Reason(content), "plugin root is not an object") << content;
  }
}

TEST_F(JSONPluginTest, ReasonTextsOfEveryCheck) {
  struct Case {
    std::string content;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {R"({"operations": {"start": []}})", "invalid metadata interface"},
      {R"({"metadata": [], "operations": {"start": []}})", "invalid metadata interface"},
      {R"({"metadata": {"version": 1, "provides": []}, "operations": {"start": []}})",
       "metadata is corrupt (unable to parse requires)"},
      {R"({"metadata": {"version": 1, "requires": "a", "provides": []}, "operations": {}})",
       "metadata is corrupt (unable to parse requires)"},
      {R"({"metadata": {"version": 1, "requires": ["a", 1], "provides": []}})",
       "requires tag is not a string"},
      {R"({"metadata": {"version": 1, "requires": []}, "operations": {"start": []}})",
       "metadata is corrupt (unable to parse provides)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": {}}})",
       "metadata is corrupt (unable to parse provides)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": [null]}})",
       "provides tag is not a string"},
      {Description(3, R"("required_flags": "a", "run_once": true, "plugin_version": "1")"),
       "metadata is corrupt (unable to parse required_flags)"},
      {Description(3, R"("required_flags": ["a", []], "run_once": true, "plugin_version": "1")"),
       "required_flags tag is not a string"},
      {Description(3, R"("disabling_flags": {}, "run_once": true, "plugin_version": "1")"),
       "metadata is corrupt (unable to parse disabling_flags)"},
      {Description(3, R"("disabling_flags": [false], "run_once": true, "plugin_version": "1")"),
       "disabling_flags tag is not a string"},
      {Description(4, R"("run_once": "true", "plugin_version": "1")"),
       "metadata is corrupt (unable to parse run_once)"},
      {Description(4, R"("run_once": 1, "plugin_version": "1")"),
       "metadata is corrupt (unable to parse run_once)"},
      {Description(4, R"("run_once": true, "plugin_version": 1.0)"),
       "metadata is corrupt (unable to parse plugin_version)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []}})",
       "invalid operations interface"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []}, "operations": []})",
       "invalid operations interface"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {}})",
       "operations is corrupt (unable to parse start)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []},
           "operations": {"start": "go"}})",
       "operations is corrupt (unable to parse start)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []},
           "operations": {"start": ["go", 2]}})",
       "command is not a string"},
      {Description(2, "", R"("apply_host_profile": "p")"),
       "operations is corrupt (unable to parse apply-host-profile)"},
      {Description(2, "", R"("apply_host_profile": null)"),
       "operations is corrupt (unable to parse apply-host-profile)"},
      {Description(2, "", R"("apply_host_profile": ["p", {"x": 1}])"), "command is not a string"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(Reason(each.content), each.reason) << each.content;
  }
}

TEST_F(JSONPluginTest, RefusalNamesThePathInThePluginPosition) {
  EXPECT_EQ(Refusal("[]", "libnet.json"), "plugin `" + (temporary_ / "libnet.json") +
                                              "' is invalid: plugin root is not an object");
}

// ---- the order of the checks

TEST_F(JSONPluginTest, FirstProblemInCheckingOrderIsReported) {
  // Each description breaks two rules; the one checked first is reported.
  struct Case {
    std::string content;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {R"({"metadata": 1, "operations": 1})", "invalid metadata interface"},
      {R"({"metadata": {"version": "1", "requires": 1}})",
       "metadata is corrupt (unable to parse version)"},
      {R"({"metadata": {"version": 9, "requires": 1}})", "Unsupported API version"},
      {R"({"metadata": {"version": 1, "requires": 1, "provides": 1}})",
       "metadata is corrupt (unable to parse requires)"},
      {R"({"metadata": {"version": 3, "requires": [], "provides": 1, "required_flags": 1}})",
       "metadata is corrupt (unable to parse provides)"},
      {R"({"metadata": {"version": 3, "requires": [], "provides": [], "required_flags": 1,
                        "disabling_flags": 1}})",
       "metadata is corrupt (unable to parse required_flags)"},
      {R"({"metadata": {"version": 3, "requires": [], "provides": [], "disabling_flags": 1}})",
       "metadata is corrupt (unable to parse disabling_flags)"},
      {R"({"metadata": {"version": 3, "requires": [], "provides": []}})",
       "metadata is corrupt (unable to parse run_once)"},
      {R"({"metadata": {"version": 3, "requires": [], "provides": [], "run_once": true}})",
       "metadata is corrupt (unable to parse plugin_version)"},
      {R"({"metadata": {"version": 1, "requires": [], "provides": []}, "operations": 1})",
       "invalid operations interface"},
      {Description(2, "", R"("apply_host_profile": 1)", "[1]"), "command is not a string"},
      {R"({"metadata": {"version": 2, "requires": [], "provides": []},
           "operations": {"apply_host_profile": 1}})",
       "operations is corrupt (unable to parse start)"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(Reason(each.content), each.reason) << each.content;
  }
}

// ---- barriers

TEST_F(JSONPluginTest, RequiredAndProvidedBarriersAreLinkedInOrder) {
  auto plugin = Load(R"({"metadata": {"version": 1, "requires": ["r1", "r2"],
                         "provides": ["p1", "p2"]}, "operations": {"start": []}})");
  Node* r1 = registry_.GetBarrier("r1", false);
  Node* r2 = registry_.GetBarrier("r2", false);
  Node* p1 = registry_.GetBarrier("p1", false);
  Node* p2 = registry_.GetBarrier("p2", false);
  ASSERT_NE(r1, nullptr);
  ASSERT_NE(r2, nullptr);
  ASSERT_NE(p1, nullptr);
  ASSERT_NE(p2, nullptr);
  EXPECT_THAT(plugin->Predecessors(), ElementsAre(r1, r2));
  EXPECT_THAT(plugin->Successors(), ElementsAre(p1, p2));
  EXPECT_THAT(r1->Successors(), ElementsAre(plugin.get()));
  EXPECT_THAT(p2->Predecessors(), ElementsAre(plugin.get()));
}

TEST_F(JSONPluginTest, TwoPluginsNamingOneBarrierShareItsVertex) {
  auto provider = Load(R"({"metadata": {"version": 1, "requires": [], "provides": ["net"]},
                           "operations": {"start": []}})");
  auto requirer = Load(R"({"metadata": {"version": 1, "requires": ["net"], "provides": []},
                           "operations": {"start": []}})");
  Node* net = registry_.GetBarrier("net", false);
  ASSERT_NE(net, nullptr);
  EXPECT_THAT(net->Predecessors(), ElementsAre(provider.get()));
  EXPECT_THAT(net->Successors(), ElementsAre(requirer.get()));
  EXPECT_EQ(registry_.ListBarriers().size(), 1u);
}

TEST_F(JSONPluginTest, RequiresWithANonStringRegistersNothingFromThatArray) {
  EXPECT_EQ(Reason(R"({"metadata": {"version": 1, "requires": ["a", 1], "provides": []}})"),
            "requires tag is not a string");
  EXPECT_EQ(registry_.GetBarrier("a", false), nullptr);
  EXPECT_THAT(registry_.ListBarriers(), IsEmpty());
}

TEST_F(JSONPluginTest, ProvidesWithANonStringKeepsTheRequiredBarriersOnly) {
  EXPECT_EQ(Reason(R"({"metadata": {"version": 1, "requires": ["r"], "provides": ["p", 2]}})"),
            "provides tag is not a string");
  Node* r = registry_.GetBarrier("r", false);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->Successors().size(), 1u);
  EXPECT_EQ(registry_.GetBarrier("p", false), nullptr);
}

TEST_F(JSONPluginTest, LateFailureLeavesBarriersLinkedToADoneVertex) {
  // Fails at the very last check, long after its barriers were linked.
  EXPECT_EQ(Reason(R"({"metadata": {"version": 2, "requires": ["before"], "provides": ["after"]},
                       "operations": {"start": ["x"], "apply_host_profile": ["ok", 3]}})"),
            "command is not a string");
  Node* before = registry_.GetBarrier("before", false);
  Node* after = registry_.GetBarrier("after", false);
  ASSERT_NE(before, nullptr);
  ASSERT_NE(after, nullptr);
  ASSERT_EQ(before->Successors().size(), 1u);
  ASSERT_EQ(after->Predecessors().size(), 1u);
  Node* refused = before->Successors().front();
  EXPECT_EQ(refused, after->Predecessors().front());
  EXPECT_EQ(refused->Name(), "test");
  // Done, so that "after" does not wait for it and nothing runs it.
  EXPECT_EQ(refused->State(), NodeState::Started);
}

TEST_F(JSONPluginTest, FailureAtVersionThreeKeysLeavesBarriersLinked) {
  EXPECT_EQ(Reason(R"({"metadata": {"version": 3, "requires": ["late3"], "provides": []},
                       "operations": {"start": []}})"),
            "metadata is corrupt (unable to parse run_once)");
  Node* barrier = registry_.GetBarrier("late3", false);
  ASSERT_NE(barrier, nullptr);
  EXPECT_EQ(barrier->Successors().size(), 1u);
}

// ---- operations

TEST_F(JSONPluginTest, StartSendsEveryStartCommandInOrder) {
  auto plugin = Load(Description(1, "", "", R"(["one", "two", "three"])"));
  EXPECT_NO_THROW(plugin->Start());
  EXPECT_THAT(plugin->sent, ElementsAre("one", "two", "three"));
}

TEST_F(JSONPluginTest, EmptyStartSucceedsAtOnce) {
  auto plugin = Load(Description(1));
  EXPECT_NO_THROW(plugin->Start());
  EXPECT_THAT(plugin->sent, IsEmpty());
}

TEST_F(JSONPluginTest, FailedFirstCommandStillRunsTheOthersThenFails) {
  auto plugin = Load(Description(1, "", "", R"(["bad", "good1", "good2"])"));
  plugin->failing = {"bad"};
  ::testing::internal::CaptureStderr();
  try {
    plugin->Start();
    ADD_FAILURE() << "Start did not throw";
  } catch (const MethodFailedException& error) {
    EXPECT_STREQ(error.what(), "test->start() failed: error while executing the cli");
  }
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(plugin->sent, ElementsAre("bad", "good1", "good2"));
  EXPECT_THAT(logged, HasSubstr("Executor failed executing qorcli command: bad\n"));
}

TEST_F(JSONPluginTest, EveryFailureIsLoggedAndAnUnknownOneIsCountedSilently) {
  auto plugin = Load(Description(1, "", "", R"(["a", "odd", "b", "c"])"));
  plugin->failing = {"a", "c"};
  plugin->failingOddly = {"odd"};
  ::testing::internal::CaptureStderr();
  EXPECT_THROW(plugin->Start(), MethodFailedException);
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(plugin->sent, ElementsAre("a", "odd", "b", "c"));
  // Only the two std::exceptions produce a line each.
  EXPECT_EQ(logged,
            "Executor failed executing qorcli command: a\n"
            "Executor failed executing qorcli command: c\n");
}

TEST_F(JSONPluginTest, OnlyAnUnknownFailureStillFailsTheMethod) {
  auto plugin = Load(Description(1, "", "", R"(["odd"])"));
  plugin->failingOddly = {"odd"};
  EXPECT_THROW(plugin->Start(), MethodFailedException);
}

TEST_F(JSONPluginTest, ApplyHostProfileSendsTheHostProfileCommandsNotTheStartCommands) {
  auto plugin = Load(R"({"metadata": {"version": 2, "requires": [], "provides": []},
                         "operations": {"start": ["s"], "apply_host_profile": ["h1", "h2"]}})");
  EXPECT_NO_THROW(plugin->ApplyHostProfile());
  EXPECT_THAT(plugin->sent, ElementsAre("h1", "h2"));
}

TEST_F(JSONPluginTest, FailedHostProfileCommandFailsApplyHostProfile) {
  auto plugin = Load(R"({"metadata": {"version": 2, "requires": [], "provides": []},
                         "operations": {"start": [], "apply_host_profile": ["h1", "h2"]}})");
  plugin->failing = {"h2"};
  ::testing::internal::CaptureStderr();
  try {
    plugin->ApplyHostProfile();
    ADD_FAILURE() << "ApplyHostProfile did not throw";
  } catch (const MethodFailedException& error) {
    EXPECT_STREQ(error.what(), "test->apply_host_profile() failed: error while executing the cli");
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(plugin->sent, ElementsAre("h1", "h2"));
}

TEST_F(JSONPluginTest, EmptyHostProfileOperationIsSupportedAndDoesNothing) {
  auto plugin = Load(Description(2, "", R"("apply_host_profile": [])"));
  EXPECT_TRUE(plugin->SupportsHostProfile());
  EXPECT_NO_THROW(plugin->ApplyHostProfile());
  EXPECT_THAT(plugin->sent, IsEmpty());
}

TEST_F(JSONPluginTest, StartThroughInvokeMethodReportsTheFailure) {
  auto plugin = Load(Description(1, "", "", R"(["bad"])"));
  plugin->failing = {"bad"};
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(plugin->InvokeMethod("start"));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("Method invocation failed: test->start() failed: error while executing "
                        "the cli\n"));
}

TEST_F(JSONPluginTest, CommandLinesArePassedOnByteForByte) {
  // Escapes are decoded; bytes that are not UTF-8 are kept as they are.
  auto plugin = Load(std::string(R"({"metadata": {"version": 1, "requires": [], "provides": []},
                         "operations": {"start": ["say \"hi\"\tthere \u00e9", "raw )") +
                     "\xff\xfe" + R"("]}})");
  EXPECT_THAT(plugin->StartCommands(),
              ElementsAre("say \"hi\"\tthere \xc3\xa9", std::string("raw \xff\xfe")));
}

// ---- bad input

TEST_F(JSONPluginTest, TruncatedDescriptionsAreNotObjects) {
  const std::string whole = Description(3, kVersion3Keys, R"("apply_host_profile": ["p"])");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(Reason(whole.substr(0, length)), "plugin root is not an object") << length;
  }
  EXPECT_EQ(Load(whole)->GetApiVersion(), 3);
}

TEST_F(JSONPluginTest, BinaryContentIsNotAnObject) {
  std::string binary;
  for (int byte = 0; byte < 256; ++byte) binary += static_cast<char>((byte * 151 + 7) % 256);
  EXPECT_EQ(Reason(binary), "plugin root is not an object");
  EXPECT_EQ(Reason(std::string("\0{}", 3)), "plugin root is not an object");
  EXPECT_EQ(Reason(std::string("{}\0", 3)), "plugin root is not an object");
}

TEST_F(JSONPluginTest, DeepNestingIsRefusedWithoutExhaustingTheStack) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(Reason(deep), "description nests deeper than 64 levels");
  const std::string deepObject =
      R"({"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {"start": []},
          "deep": )" +
      deep + "}";
  EXPECT_EQ(Reason(deepObject), "description nests deeper than 64 levels");
  // A truncated deep document is too deep before it is incomplete.
  EXPECT_EQ(Reason(std::string(100000, '[')), "description nests deeper than 64 levels");
  std::string deepObjects;
  for (int level = 0; level < 100000; ++level) deepObjects += R"({"a":)";
  EXPECT_EQ(Reason(deepObjects), "description nests deeper than 64 levels");
}

TEST_F(JSONPluginTest, NestingUpToTheLimitIsAccepted) {
  // The root is level 1 and the "deep" value level 2.
  const std::size_t arrays = JSONPlugin::kMaxNestingDepth - 1;
  const std::string atLimit = R"({"metadata": {"version": 1, "requires": [], "provides": []},
      "operations": {"start": []}, "deep": )" +
                              std::string(arrays, '[') + std::string(arrays, ']') + "}";
  EXPECT_EQ(Load(atLimit)->GetApiVersion(), 1);
  const std::string beyond = R"({"metadata": {"version": 1, "requires": [], "provides": []},
      "operations": {"start": []}, "deep": )" +
                             std::string(arrays + 1, '[') + std::string(arrays + 1, ']') + "}";
  EXPECT_EQ(Reason(beyond), "description nests deeper than 64 levels");
}

// Bytes this process has read so far, as the kernel counts them.
std::uint64_t BytesReadByThisProcess() {
  std::ifstream accounting("/proc/self/io");
  std::string field;
  std::uint64_t value = 0;
  while (accounting >> field >> value) {
    if (field == "rchar:") return value;
  }
  ADD_FAILURE() << "no rchar in /proc/self/io";
  return 0;
}

TEST_F(JSONPluginTest, HugeFileIsRefusedWithoutBeingRead) {
  const std::string path = Write("");
  std::filesystem::resize_file(path, 100 * 1024 * 1024);  // sparse: costs no disk
  const std::uint64_t before = BytesReadByThisProcess();
  EXPECT_EQ(RefusalOfPath(path),
            "plugin `" + path + "' is invalid: description is larger than 16777216 bytes");
  // Reading it up to the bound would have cost 16 MiB.
  EXPECT_LT(BytesReadByThisProcess() - before, 64u * 1024);
}

TEST_F(JSONPluginTest, DescriptionOfExactlyTheLimitIsRead) {
  std::string padded = Description(1);
  padded += std::string(JSONPlugin::kMaxDescriptionSize - padded.size(), ' ');
  EXPECT_EQ(Load(padded)->GetApiVersion(), 1);
  EXPECT_EQ(Reason(padded + " "), "description is larger than 16777216 bytes");
}

TEST_F(JSONPluginTest, EndlessDeviceIsRefusedAsNotARegularFile) {
  const std::string path = temporary_ / "zero.json";
  std::filesystem::create_symlink("/dev/zero", path);
  EXPECT_EQ(RefusalOfPath(path),
            "plugin `" + path + "' is invalid: not a regular file (a character device)");
}

TEST_F(JSONPluginTest, FifoWithoutWriterIsRefusedWithoutHoldingUpTheLoad) {
  const std::string path = temporary_ / "fifo.json";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(RefusalOfPath(path), "plugin `" + path + "' is invalid: not a regular file (a FIFO)");
}

TEST_F(JSONPluginTest, DirectoryIsRefusedAsNotARegularFile) {
  const std::string path = temporary_ / "directory.json";
  std::filesystem::create_directory(path);
  EXPECT_EQ(RefusalOfPath(path),
            "plugin `" + path + "' is invalid: not a regular file (a directory)");
}

TEST_F(JSONPluginTest, LinkToARegularFileIsFollowed) {
  const std::string target = Write(Description(2), "target.json");
  const std::string path = temporary_ / "link.json";
  std::filesystem::create_symlink(target, path);
  EXPECT_EQ(JSONPlugin::Load("link", path, registry_)->GetApiVersion(), 2);
}

TEST_F(JSONPluginTest, DuplicateKeyTakesTheLastValue) {
  auto plugin = Load(R"({"metadata": {"version": 9, "version": 2, "requires": [],
                         "provides": []}, "operations": {"start": ["a"], "start": ["b"]}})");
  EXPECT_EQ(plugin->GetApiVersion(), 2);
  EXPECT_THAT(plugin->StartCommands(), ElementsAre("b"));
}

// ---- the loader

/// LoadPlugin with names ending in ".json", resolved in a plugin directory
/// of the test's own and linked into a barrier registry of the test's own.
class JSONPluginLoadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    savedDirectory_ = RunOptions::Instance().pluginDirectory;
    RunOptions::Instance().pluginDirectory = temporary_.Path().string();
  }
  void TearDown() override { RunOptions::Instance().pluginDirectory = savedDirectory_; }

  /// Loads @p fileName; returns what was logged.
  std::string LoadLogged(const std::string& fileName) {
    ::testing::internal::CaptureStderr();
    LoadPlugin(fileName, plugins_, PluginFilters{{}, noneDisabled_, runOnce_},
               RunOptions::Instance(), registry_, temporary_ / "no-debug.conf");
    return ::testing::internal::GetCapturedStderr();
  }

  unit_testing::TemporaryDirectory temporary_;
  std::string savedDirectory_;
  std::vector<std::string> alerts_;
  unit_testing::ScopedSystemAlertSink alertSink_{
      [this](const std::string& text) { alerts_.push_back(text); }};
  std::vector<std::string> noneDisabled_;
  std::set<std::string> runOnce_;
  BarrierRegistry registry_;
  LoadedPlugins plugins_;
};

TEST_F(JSONPluginLoadTest, JsonNameLoadsTheDescriptionFromThePluginDirectory) {
  temporary_.Write("libnet.json", Description(1, "", "", R"(["net up"])"));
  EXPECT_EQ(LoadLogged("libnet.json"), "");
  ASSERT_EQ(plugins_.List().size(), 1u);
  auto* plugin = dynamic_cast<JSONPlugin*>(plugins_.List().front());
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->Name(), "net");
  EXPECT_THAT(plugin->StartCommands(), ElementsAre("net up"));
  EXPECT_THAT(alerts_, IsEmpty());
}

TEST_F(JSONPluginLoadTest, RepeatedNameLoadsTwoPlugins) {
  temporary_.Write("a.json", Description(1));
  LoadLogged("a.json");
  LoadLogged("a.json");
  ASSERT_EQ(plugins_.List().size(), 2u);
  EXPECT_NE(plugins_.List()[0], plugins_.List()[1]);
}

TEST_F(JSONPluginLoadTest, NameMadeOnlyOfTheExtensionLoadsAPluginWithAnEmptyName) {
  temporary_.Write(".json", Description(1));
  LoadLogged(".json");
  ASSERT_EQ(plugins_.List().size(), 1u);
  EXPECT_EQ(plugins_.List().front()->Name(), "");
}

TEST_F(JSONPluginLoadTest, BrokenDescriptionIsAlertedLoggedAndLeftOut) {
  temporary_.Write("broken.json", "{\"metadata\": ");
  const std::string expected = "exception occurred whilst loading plugin broken.json: plugin `" +
                               (temporary_ / "broken.json") +
                               "' is invalid: plugin root is not an object";
  EXPECT_EQ(LoadLogged("broken.json"), expected + "\n");
  EXPECT_THAT(alerts_, ElementsAre(expected));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(JSONPluginLoadTest, MissingDescriptionIsAlerted) {
  EXPECT_EQ(LoadLogged("ghost.json"),
            "exception occurred whilst loading plugin ghost.json: plugin `" +
                (temporary_ / "ghost.json") + "' is invalid: no such file or directory\n");
  EXPECT_EQ(alerts_.size(), 1u);
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(JSONPluginLoadTest, ExtensionIsCaseSensitive) {
  temporary_.Write("a.JSON", Description(1));
  EXPECT_EQ(LoadLogged("a.JSON"), "ignoring plugin 'a.JSON' of unknown type (JSON)...\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(JSONPluginLoadTest, BrokenNameDoesNotStopTheNextOne) {
  temporary_.Write("good.json", Description(1));
  temporary_.Write("bad.json", Description(7));
  EXPECT_THAT(LoadLogged("bad.json"), HasSubstr("Unsupported API version"));
  LoadLogged("good.json");
  ASSERT_EQ(plugins_.List().size(), 1u);
  EXPECT_EQ(plugins_.List().front()->Name(), "good");
  EXPECT_THAT(alerts_,
              ElementsAre(StartsWith("exception occurred whilst loading plugin bad.json")));
}

}  // namespace
}  // namespace orvane
