#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <boost/json.hpp>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "analyze/Verify.h"
#include "orvaner/graph/BarrierRegistry.h"

namespace orvane::analyze::testing {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr const char* kPlugins = "usr/libexec/orvane/plugins/";
constexpr const char* kHostPlugins = "/usr/libexec/orvane/plugins/";
constexpr const char* kDebugConfiguration = "etc/talvek/orvane/debug.conf";
constexpr const char* kDefinitions = "usr/lib/talvek/qorcli/";

/// The example's CLI: a command with two required strings and one with a
/// required bool and an optional string.
constexpr const char* kDefinitionFile = R"({"commands": [
  {"path": ["example", "log"], "exec": ["/bin/false"],
   "parameters": [{"name": "source", "short": "s", "required": true},
                  {"name": "message", "short": "m", "required": true}]},
  {"path": ["example", "firewall", "set"], "exec": ["/bin/false", "{enabled}"],
   "parameters": [{"name": "enabled", "type": "bool", "required": true},
                  {"name": "profile"}]}
]})";

/// A version-1 description: its barriers and start commands.
std::string Description(const std::string& required, const std::string& provided,
                        const std::string& start = "[]") {
  return R"({"metadata": {"version": 1, "requires": )" + required + R"(, "provides": )" + provided +
         R"(}, "operations": {"start": )" + start + "}}";
}

/// What one verify said.
struct Outcome {
  int status = -1;
  std::string output;
  boost::json::object json;

  /// The findings of @p severity ("failures" or "notes") of @p kind.
  std::vector<boost::json::object> Findings(const char* severity, const std::string& kind) const {
    std::vector<boost::json::object> found;
    for (const boost::json::value& finding : json.at(severity).as_array()) {
      if (finding.at("kind").as_string() == kind) {
        found.push_back(finding.as_object());
      }
    }
    return found;
  }
  std::vector<boost::json::object> Failures(const std::string& kind) const {
    return Findings("failures", kind);
  }
  std::vector<boost::json::object> Notes(const std::string& kind) const {
    return Findings("notes", kind);
  }
  std::size_t Checked(const char* count) const {
    return static_cast<std::size_t>(json.at("checked").at(count).as_int64());
  }
};

std::string Text(const boost::json::object& finding, const char* key = "text") {
  return std::string(finding.at(key).as_string());
}

std::vector<std::string> Strings(const boost::json::object& finding, const char* key) {
  std::vector<std::string> strings;
  for (const boost::json::value& text : finding.at(key).as_array()) {
    strings.emplace_back(text.as_string());
  }
  return strings;
}

/// A host tree in a temporary directory, checked with verify --root.
class VerifyTest : public ::testing::Test {
 protected:
  void WritePlugin(const std::string& fileName, const std::string& content) {
    tree_.Write(kPlugins + fileName, content);
  }
  void WriteDebugConfiguration(const std::string& content) {
    tree_.Write(kDebugConfiguration, content);
  }
  void WriteDefinitions(const std::string& fileName, const std::string& content) {
    tree_.Write(kDefinitions + fileName, content);
  }
  void CopyPlugin(const char* object, const std::string& fileName) {
    std::filesystem::create_directories(tree_.Path() / kPlugins);
    std::filesystem::copy_file(object, tree_.Path() / kPlugins / fileName);
  }
  std::string Root() const { return tree_.Path().string(); }

  /// Runs verify as text and as JSON; both must agree on the status. What
  /// reaches standard error is kept too: it must be nothing.
  Outcome Verify() {
    Outcome outcome;
    std::ostringstream text;
    std::ostringstream json;
    ::testing::internal::CaptureStderr();
    outcome.status = analyze::Verify({Root(), false}, text);
    const int jsonStatus = analyze::Verify({Root(), true}, json);
    standardError_ = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(jsonStatus, outcome.status);
    outcome.output = text.str();
    outcome.json = boost::json::parse(json.str()).as_object();
    EXPECT_EQ(outcome.json.at("status").as_int64(), outcome.status);
    return outcome;
  }

  unit_testing::TemporaryDirectory tree_;
  std::string standardError_;
};

TEST_F(VerifyTest, CleanTreeHasNothingWrong) {
  WriteDefinitions("example.json", kDefinitionFile);
  WritePlugin("storage.json",
              Description("[]", R"(["storage"])",
                          R"(["example log --source storage --message 'mounted'"])"));
  WritePlugin("firewall.json",
              R"({"metadata": {"version": 2, "requires": ["storage"], "provides": ["firewall"]},
                  "operations": {"start": ["example firewall set --enabled true"],
                                 "apply_host_profile": ["example firewall set -h",
                                   "example firewall set --enabled yes --profile host"]}})");
  WriteDebugConfiguration("report:storage,firewall::echo done\n");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_THAT(outcome.json.at("failures").as_array(), IsEmpty());
  EXPECT_THAT(outcome.json.at("notes").as_array(), IsEmpty());
  EXPECT_EQ(outcome.Checked("pluginFiles"), 2u);
  EXPECT_EQ(outcome.Checked("jsonPlugins"), 2u);
  EXPECT_EQ(outcome.Checked("debugInjections"), 1u);
  EXPECT_EQ(outcome.Checked("barriers"), 2u);
  EXPECT_EQ(outcome.Checked("commandLines"), 4u);
  EXPECT_EQ(outcome.Checked("definitionDirectories"), 1u);
  EXPECT_THAT(outcome.output, EndsWith("\nNothing wrong: nothing would fail or hang at boot.\n"));
  EXPECT_EQ(standardError_, "");
}

TEST_F(VerifyTest, TextFitsATerminal) {
  WritePlugin("a.json",
              Description(R"(["a-barrier-with-a-rather-long-name-that-nobody-provides"])", "[]"));
  const Outcome outcome = Verify();
  std::istringstream lines(outcome.output);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80u) << line;
  }
  EXPECT_THAT(outcome.output,
              HasSubstr("failure  missing provider  barrier\n"
                        "         \"a-barrier-with-a-rather-long-name-that-nobody-provides\"\n"
                        "         Orvane dependency error: "));
}

TEST_F(VerifyTest, CycleIsAFailureShownAsAPath) {
  WritePlugin("a.json", Description(R"(["BAR2"])", R"(["BAR1"])"));
  WritePlugin("b.json", Description(R"(["BAR1"])", R"(["BAR2"])"));
  WritePlugin("c.json", Description(R"(["BAR2"])", "[]"));

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto cycles = outcome.Failures("cycle");
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_THAT(Strings(cycles[0], "cycle"), ElementsAre("a", "BAR1", "b", "BAR2", "a"));
  EXPECT_EQ(cycles[0].at("knotSize").as_int64(), 4);
  EXPECT_THAT(outcome.output, HasSubstr("failure  cycle\n         a -> BAR1 -> b -> BAR2 -> a\n"
                                        "         The boot would hang: 4 plugins and barriers "
                                        "wait on each other.\n"));
  EXPECT_THAT(outcome.output, EndsWith("1 failure, 0 notes: a boot with this plugin set would "
                                       "fail or hang.\n"));
}

TEST_F(VerifyTest, EveryKnotGivesOneCycleAndAPluginOnItsOwnBarrierIsOne) {
  // Two loops sharing plugin b make one knot; x waits on itself.
  WritePlugin("a.json", Description(R"(["L1"])", R"(["L2"])"));
  WritePlugin("b.json", Description(R"(["L2", "M2"])", R"(["L1", "M1"])"));
  WritePlugin("c.json", Description(R"(["M1"])", R"(["M2"])"));
  WritePlugin("x.json", Description(R"(["self"])", R"(["self"])"));

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto cycles = outcome.Failures("cycle");
  ASSERT_THAT(cycles, SizeIs(2));
  EXPECT_THAT(Strings(cycles[0], "cycle"), ElementsAre("a", "L2", "b", "L1", "a"));
  EXPECT_EQ(cycles[0].at("knotSize").as_int64(), 7);
  EXPECT_THAT(Strings(cycles[1], "cycle"), ElementsAre("x", "self", "x"));
  EXPECT_EQ(cycles[1].at("knotSize").as_int64(), 2);
}

TEST_F(VerifyTest, RefusedDescriptionLinkedIntoALoopHoldsNothingUp) {
  // The version-3 description is refused for its missing run_once after its
  // barriers were linked: a boot keeps it, done, and goes past it.
  WritePlugin("a.json", Description(R"(["BAR2"])", R"(["BAR1"])"));
  WritePlugin("broken.json", R"({"metadata": {"version": 3, "requires": ["BAR1"],
                                 "provides": ["BAR2"]}, "operations": {"start": []}})");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.Failures("cycle"), IsEmpty());
  EXPECT_THAT(outcome.Failures("missing-provider"), IsEmpty());
  const auto refusals = outcome.Failures("plugin-file");
  ASSERT_THAT(refusals, SizeIs(1));
  EXPECT_EQ(Text(refusals[0], "file"), std::string(kHostPlugins) + "broken.json");
  EXPECT_EQ(Text(refusals[0]), "exception occurred whilst loading plugin broken.json: plugin `" +
                                   Root() + "/" + kPlugins +
                                   "broken.json' is invalid: metadata is corrupt (unable to "
                                   "parse run_once)");
}

TEST_F(VerifyTest, MissingProviderIsAFailureNamingItsRequirers) {
  WritePlugin("ntp.json", Description(R"(["clock"])", "[]"));
  WriteDebugConfiguration("inj:clock::true\n");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto missing = outcome.Failures("missing-provider");
  ASSERT_THAT(missing, SizeIs(1));
  EXPECT_EQ(Text(missing[0], "barrier"), "clock");
  EXPECT_THAT(Strings(missing[0], "requiredBy"), ElementsAre("ntp", "inj"));
  EXPECT_EQ(Text(missing[0]),
            "Orvane dependency error: Initialization barrier \"clock\" is not provided by any "
            "plugin but the following plugins require it: \"ntp\", \"inj\"");
}

TEST_F(VerifyTest, BrokenDescriptionIsAFailureInTheLoadersWords) {
  WritePlugin("broken.json", "{\"metadata\": ");
  WritePlugin("old.json", R"({"metadata": {"version": 9, "requires": [], "provides": []},
                              "operations": {"start": []}})");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto refusals = outcome.Failures("plugin-file");
  ASSERT_THAT(refusals, SizeIs(2));
  EXPECT_THAT(Text(refusals[0]),
              StartsWith("exception occurred whilst loading plugin broken.json: plugin `" + Root() +
                         "/" + kPlugins + "broken.json' is invalid: "));
  EXPECT_EQ(Text(refusals[1]), "exception occurred whilst loading plugin old.json: plugin `" +
                                   Root() + "/" + kPlugins +
                                   "old.json' is invalid: Unsupported API version");
  EXPECT_EQ(outcome.Checked("jsonPlugins"), 0u);
  EXPECT_THAT(outcome.output, HasSubstr("failure  plugin file  /usr/libexec/orvane/plugins/"
                                        "broken.json\n         exception occurred whilst "
                                        "loading plugin broken.json: plugin\n"));
}

TEST_F(VerifyTest, BadCommandLinesAreFailuresWithTheirPlaceAndTheDispatchersWords) {
  WriteDefinitions("example.json", kDefinitionFile);
  WritePlugin("cli.json", R"({"metadata": {"version": 2, "requires": [], "provides": []},
    "operations": {
      "start": ["example log --source a --message b",
                "example nosuch",
                "example log --source a",
                "example firewall set --enabled maybe",
                "example log -s a -m b --colour red",
                "example --help"],
      "apply_host_profile": ["example log --message 'unterminated"]}})");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.Checked("commandLines"), 7u);
  const auto bad = outcome.Failures("command-line");
  ASSERT_THAT(bad, SizeIs(5));
  std::vector<std::string> positions;
  for (const auto& finding : bad) {
    EXPECT_EQ(Text(finding, "file"), std::string(kHostPlugins) + "cli.json");
    positions.push_back(Text(finding, "position"));
  }
  EXPECT_THAT(positions,
              ElementsAre("operations.start[1]", "operations.start[2]", "operations.start[3]",
                          "operations.start[4]", "operations.apply_host_profile[0]"));
  EXPECT_EQ(Text(bad[0]), "example nosuch\nunknown command 'example nosuch'");
  EXPECT_EQ(Text(bad[1]),
            "example log --source a\nmissing required parameter '--message' for command "
            "'example log'");
  EXPECT_EQ(Text(bad[2]),
            "example firewall set --enabled maybe\nparameter '--enabled' of command 'example "
            "firewall set' takes true, false, 1, 0, yes or no, not 'maybe'");
  EXPECT_EQ(Text(bad[3]),
            "example log -s a -m b --colour red\nunknown parameter '--colour' for command "
            "'example log'");
  EXPECT_EQ(Text(bad[4]), "example log --message 'unterminated\nunterminated single quote");
  EXPECT_THAT(outcome.output,
              HasSubstr("failure  command line  /usr/libexec/orvane/plugins/cli.json "
                        "operations.start[1]\n"
                        "         example nosuch\n"
                        "         unknown command 'example nosuch'\n"));
  // A heading too long for a line goes on under the kind.
  EXPECT_THAT(outcome.output,
              HasSubstr("failure  command line  /usr/libexec/orvane/plugins/cli.json\n"
                        "         operations.apply_host_profile[0]\n"));
}

TEST_F(VerifyTest, WithoutDefinitionsEveryCommandIsUnknown) {
  WritePlugin("cli.json", Description("[]", "[]", R"(["example log -s a -m b"])"));
  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.Checked("definitionDirectories"), 0u);
  const auto bad = outcome.Failures("command-line");
  ASSERT_THAT(bad, SizeIs(1));
  EXPECT_EQ(Text(bad[0]), "example log -s a -m b\nunknown command 'example log'");
  EXPECT_THAT(outcome.Failures("cli-definitions"), IsEmpty());
}

TEST_F(VerifyTest, DefinitionFileThatDoesNotLoadIsAFailure) {
  WriteDefinitions("example.json", kDefinitionFile);
  WriteDefinitions("broken.json", R"({"commands": [{"path": [], "exec": ["/bin/true"]}]})");
  tree_.Write(std::string(kDefinitions) + "ext", "a file where a directory belongs");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto problems = outcome.Failures("cli-definitions");
  ASSERT_THAT(problems, SizeIs(2));
  EXPECT_EQ(Text(problems[0], "file"), "/usr/lib/talvek/qorcli/ext");
  EXPECT_THAT(Text(problems[0]), HasSubstr("cannot read command definition directory"));
  EXPECT_THAT(Text(problems[1]), StartsWith(Root() + "/" + kDefinitions + "broken.json"));
}

TEST_F(VerifyTest, ProvidedButUnrequiredBarrierIsOnlyANote) {
  WritePlugin("a.json", Description("[]", R"(["spare"])"));
  WriteDebugConfiguration("inj::spare:true\n");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  const auto notes = outcome.Notes("unrequired-barrier");
  ASSERT_THAT(notes, SizeIs(1));
  EXPECT_EQ(Text(notes[0], "barrier"), "spare");
  EXPECT_THAT(Strings(notes[0], "providedBy"), ElementsAre("a", "inj"));
  EXPECT_EQ(Text(notes[0]),
            "barrier \"spare\" is provided by \"a\", \"inj\" but no plugin requires it");
  EXPECT_THAT(outcome.output,
              EndsWith("No failures, 1 note: nothing would fail or hang at boot.\n"));
}

TEST_F(VerifyTest, FilesOfUnknownOrUnspecifiedTypeAreNotes) {
  WritePlugin("README", "read me");
  WritePlugin("notes.txt", "notes");
  WritePlugin("stray.debug", "");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  const auto notes = outcome.Notes("plugin-file");
  ASSERT_THAT(notes, SizeIs(3));
  EXPECT_EQ(Text(notes[0], "file"), std::string(kHostPlugins) + "README");
  EXPECT_EQ(Text(notes[0]), "ignoring plugin 'README' of unspecified type...");
  EXPECT_EQ(Text(notes[1]), "ignoring plugin 'notes.txt' of unknown type (txt)...");
  EXPECT_EQ(Text(notes[2]), "loads nothing: no entry of the debug configuration has its name");
}

TEST_F(VerifyTest, DebugFileInThePluginDirectoryAddsItsEntriesOnceMore) {
  WriteDebugConfiguration("inj::spare:true\n");
  WritePlugin("inj.debug", "");
  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.Checked("debugInjections"), 2u);
  const auto notes = outcome.Notes("unrequired-barrier");
  ASSERT_THAT(notes, SizeIs(1));
  EXPECT_THAT(Strings(notes[0], "providedBy"), ElementsAre("inj", "inj"));
}

TEST_F(VerifyTest, MalformedDebugLineIsOneFailure) {
  WriteDebugConfiguration("good:::true\nbroken line\n");
  WritePlugin("a.json", Description("[]", "[]"));
  WritePlugin("b.json", Description("[]", "[]"));

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto problems = outcome.Failures("debug-configuration");
  ASSERT_THAT(problems, SizeIs(1));
  EXPECT_EQ(Text(problems[0], "file"), "/etc/talvek/orvane/debug.conf");
  EXPECT_EQ(Text(problems[0]), "ignoring malformed debug entry at line 2: broken line");
  EXPECT_THAT(outcome.json.at("notes").as_array(), IsEmpty());
  EXPECT_EQ(outcome.Checked("debugInjections"), 1u);
}

TEST_F(VerifyTest, DebugConfigurationThatIsNotAFileIsAFailure) {
  std::filesystem::create_directories(tree_.Path() / kDebugConfiguration);
  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto problems = outcome.Failures("debug-configuration");
  ASSERT_THAT(problems, SizeIs(1));
  EXPECT_EQ(Text(problems[0]), "a boot reads it as absent: not a regular file (a directory)");
}

TEST_F(VerifyTest, PluginThatNeedsBootFlagsIsCheckedAsTakingPart) {
  WriteDefinitions("example.json", kDefinitionFile);
  WritePlugin("maintenance.json",
              R"({"metadata": {"version": 4, "requires": ["window"], "provides": [],
                  "required_flags": ["maintenance", "late"], "disabling_flags": ["quick"],
                  "run_once": false, "plugin_version": "1.0"},
                  "operations": {"start": ["example nosuch"]}})");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.Checked("jsonPlugins"), 1u);
  const auto missing = outcome.Failures("missing-provider");
  ASSERT_THAT(missing, SizeIs(1));
  EXPECT_THAT(Strings(missing[0], "requiredBy"), ElementsAre("maintenance"));
  EXPECT_THAT(outcome.Failures("command-line"), SizeIs(1));
  const auto notes = outcome.Notes("boot-flags");
  ASSERT_THAT(notes, SizeIs(1));
  EXPECT_EQ(Text(notes[0]),
            "checked as taking part in a boot with its flags; a boot without them leaves it "
            "out, disabled due to missing required boot flags: late maintenance ");
}

TEST_F(VerifyTest, PluginThatNoBootRunsIsANoteAndNotChecked) {
  WritePlugin("never.json",
              R"({"metadata": {"version": 3, "requires": [], "provides": ["spare"],
                  "required_flags": ["x"], "disabling_flags": ["x"],
                  "run_once": false, "plugin_version": "1.0"},
                  "operations": {"start": ["example nosuch"]}})");

  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.Checked("jsonPlugins"), 0u);
  EXPECT_EQ(outcome.Checked("commandLines"), 0u);
  const auto notes = outcome.Notes("boot-flags");
  ASSERT_THAT(notes, SizeIs(1));
  EXPECT_EQ(Text(notes[0]),
            "not checked further: no boot runs it, as it needs and is disabled by the same "
            "boot flags: x ");
  // Kept in the graph as done, it still counts as the barrier's provider.
  EXPECT_THAT(outcome.Notes("unrequired-barrier"), SizeIs(1));
}

TEST_F(VerifyTest, NativePluginIsOpenedOnlyForItsDeclarations) {
  const std::string record = tree_ / "record";
  ASSERT_EQ(setenv("ORVANE_TEST_RECORD", record.c_str(), 1), 0);
  CopyPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  CopyPlugin(ORVANE_TEST_PLUGIN_NO_METADATA, "no_metadata.so");
  WritePlugin("user.json", Description(R"(["native.one"])", "[]"));

  const Outcome outcome = Verify();
  unsetenv("ORVANE_TEST_RECORD");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.Checked("nativePlugins"), 1u);
  EXPECT_THAT(outcome.Failures("missing-provider"), IsEmpty());
  const auto refusals = outcome.Failures("plugin-file");
  ASSERT_THAT(refusals, SizeIs(1));
  EXPECT_EQ(Text(refusals[0], "file"), std::string(kHostPlugins) + "no_metadata.so");
  EXPECT_THAT(Text(refusals[0]),
              StartsWith("exception occurred whilst loading plugin no_metadata.so: Failed "
                         "loading symbol: metadata"));
  EXPECT_FALSE(tree_.Exists("record")) << tree_.Read("record");
}

TEST_F(VerifyTest, NativePluginThatNeedsBootFlagsIsCheckedAsTakingPart) {
  CopyPlugin(ORVANE_TEST_PLUGIN_VERSION3, "libversion3.so");
  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.Checked("nativePlugins"), 1u);
  const auto missing = outcome.Failures("missing-provider");
  ASSERT_THAT(missing, SizeIs(2));
  EXPECT_EQ(Text(missing[0], "barrier"), "version3.needs.a");
  EXPECT_THAT(Strings(missing[0], "requiredBy"), ElementsAre("version3"));
  EXPECT_THAT(outcome.Notes("boot-flags"), SizeIs(1));
  EXPECT_THAT(outcome.Notes("unrequired-barrier"), SizeIs(2));
}

TEST_F(VerifyTest, MissingPluginDirectoryIsAFailureButTheInjectionsAreChecked) {
  WriteDebugConfiguration("inj:clock::true\n");
  const Outcome outcome = Verify();
  EXPECT_EQ(outcome.status, 1);
  const auto problems = outcome.Failures("plugin-directory");
  ASSERT_THAT(problems, SizeIs(1));
  EXPECT_THAT(Text(problems[0]), AllOf(StartsWith("a boot loads no plugin: "),
                                       HasSubstr("No such file or directory")));
  EXPECT_THAT(outcome.Failures("missing-provider"), SizeIs(1));
}

TEST_F(VerifyTest, EachVerifyHasAGraphOfItsOwnAndLeavesTheProcessWideOneAlone) {
  WritePlugin("provider.json", Description("[]", R"(["verify.shared"])"));
  WriteDebugConfiguration("inj::verify.shared:true\n");
  EXPECT_EQ(Verify().status, 0);

  unit_testing::TemporaryDirectory second;
  second.Write(std::string(kPlugins) + "requirer.json", Description(R"(["verify.shared"])", "[]"));
  std::ostringstream out;
  EXPECT_EQ(analyze::Verify({second.Path().string(), true}, out), 1);
  const boost::json::value report = boost::json::parse(out.str());
  const boost::json::array& failures = report.at("failures").as_array();
  ASSERT_THAT(failures, SizeIs(1));
  EXPECT_EQ(Text(failures[0].as_object()),
            "Orvane dependency error: Initialization barrier \"verify.shared\" is not provided "
            "by any plugin but the following plugins require it: \"requirer\"");
  EXPECT_EQ(BarrierRegistry::Instance().GetBarrier("verify.shared", false), nullptr);
}

TEST_F(VerifyTest, RootWithATrailingSlashIsTheSameRoot) {
  WritePlugin("a.json", Description(R"(["clock"])", "[]"));
  std::ostringstream plain;
  std::ostringstream slashed;
  EXPECT_EQ(analyze::Verify({Root(), true}, plain), 1);
  EXPECT_EQ(analyze::Verify({Root() + "/", true}, slashed), 1);
  auto withoutRoot = [](const std::string& json) {
    boost::json::object report = boost::json::parse(json).as_object();
    report.erase("root");
    return boost::json::serialize(report);
  };
  EXPECT_EQ(withoutRoot(plain.str()), withoutRoot(slashed.str()));
}

TEST_F(VerifyTest, NamesAreMadeSafeForATerminal) {
  WritePlugin("a.json", Description(R"(["bell\u0007"])", "[]"));
  const Outcome outcome = Verify();
  EXPECT_THAT(outcome.output, HasSubstr("barrier \"bell\\x07\""));
  EXPECT_THAT(outcome.output, Not(HasSubstr("\a")));
  EXPECT_EQ(Text(outcome.Failures("missing-provider").at(0), "barrier"), "bell\a");
}

/// A ring of 100,000 plugins, each requiring the barrier of the one before:
/// one knot of 200,000 vertices, which a recursive walk would go down one
/// stack frame per vertex.
TEST_F(VerifyTest, RingOfAHundredThousandPluginsIsOneCycle) {
  constexpr int kPluginCount = 100000;
  auto name = [](int index) {
    char text[16];
    std::snprintf(text, sizeof text, "p%06d", index);
    return std::string(text);
  };
  for (int index = 0; index < kPluginCount; ++index) {
    const std::string previous = name((index + kPluginCount - 1) % kPluginCount);
    WritePlugin(name(index) + ".json",
                Description("[\"" + previous + ".done\"]", "[\"" + name(index) + ".done\"]"));
  }

  std::ostringstream out;
  EXPECT_EQ(analyze::Verify({Root(), true}, out), 1);
  const boost::json::object report = boost::json::parse(out.str()).as_object();
  EXPECT_EQ(report.at("checked").at("jsonPlugins").as_int64(), kPluginCount);
  const boost::json::array& failures = report.at("failures").as_array();
  ASSERT_THAT(failures, SizeIs(1));
  const boost::json::object& cycle = failures[0].as_object();
  EXPECT_EQ(cycle.at("kind").as_string(), "cycle");
  EXPECT_EQ(cycle.at("knotSize").as_int64(), 2 * kPluginCount);
  const std::vector<std::string> path = Strings(cycle, "cycle");
  ASSERT_EQ(path.size(), 2u * kPluginCount + 1);
  EXPECT_EQ(path.front(), "p000000");
  EXPECT_EQ(path[1], "p000000.done");
  EXPECT_EQ(path[2], "p000001");
  EXPECT_EQ(path[path.size() - 2], "p099999.done");
  EXPECT_EQ(path.back(), "p000000");
  // The text shows the cycle's two ends.
  EXPECT_EQ(Text(cycle),
            "p000000 -> p000000.done -> p000001 -> p000001.done -> p000002 -> p000002.done -> "
            "p000003 -> p000003.done -> ... 199985 more ... -> p099996.done -> p099997 -> "
            "p099997.done -> p099998 -> p099998.done -> p099999 -> p099999.done -> p000000\n"
            "The boot would hang: 200000 plugins and barriers wait on each other.");
}

}  // namespace
}  // namespace orvane::analyze::testing
