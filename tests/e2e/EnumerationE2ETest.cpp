// Runs of the installed orvane on the sandboxed host over a plugin directory
// that holds every kind of file: which plugins take part, which the filters
// keep out, what is logged about each, and what a missing directory does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>
#include <memory>
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
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

/// What a version-3 description declares besides its start command.
struct Declared {
  std::vector<std::string> required;
  std::vector<std::string> provided;
  std::vector<std::string> requiredFlags;
  std::vector<std::string> disablingFlags;
  bool runOnce = false;
  std::string pluginVersion = "1";
};

/// A version-3 description whose start records @p text.
std::string Description(const std::string& text, const Declared& declared = {}) {
  return "{\"metadata\": {\"version\": 3, \"requires\": " + JsonList(declared.required) +
         ", \"provides\": " + JsonList(declared.provided) +
         ", \"required_flags\": " + JsonList(declared.requiredFlags) +
         ", \"disabling_flags\": " + JsonList(declared.disablingFlags) +
         ", \"run_once\": " + (declared.runOnce ? "true" : "false") + ", \"plugin_version\": \"" +
         declared.pluginVersion + "\"},\n \"operations\": {\"start\": [\"test record --text " +
         text + "\"]}}\n";
}

/// "Activating Orvane plugin N." and "Orvane plugin N activated." for each name.
std::vector<std::string> ActivatedLines(const std::vector<std::string>& names) {
  std::vector<std::string> lines;
  for (const std::string& name : names) {
    lines.push_back("Activating Orvane plugin " + name + ".");
    lines.push_back("Orvane plugin " + name + " activated.");
  }
  return lines;
}

class EnumerationE2E : public OrvaneRunTest {
 protected:
  void SetUp() override {
    OrvaneRunTest::SetUp();
    if (IsSkipped()) return;
    InstallRecordingCommands(*sandbox_);
  }

  void WritePlugin(const std::string& fileName, const std::string& content) {
    sandbox_->WriteFile(PluginFile(fileName), content);
  }

  /// Every kind of entry and every filter case, in one directory. With
  /// --disable-plugins=off --plugin-flags=quiet,x --run-once=done2:
  /// alpha, beta, once, done (marked done), after, native_first and inj
  /// (twice: from inj.debug and from the configuration) take part.
  void FillMixedDirectory() {
    WritePlugin("alpha.json", Description("alpha"));
    WritePlugin("libbeta.json", Description("beta"));
    Declared off;
    off.provided = {"enum.off"};
    WritePlugin("off.json", Description("off", off));
    Declared flagged;
    flagged.provided = {"enum.flagged"};
    flagged.disablingFlags = {"quiet", "loud"};
    WritePlugin("flagged.json", Description("flagged", flagged));
    Declared needy;
    needy.requiredFlags = {"x", "y"};
    WritePlugin("needy.json", Description("needy", needy));
    Declared both;
    both.requiredFlags = {"z"};
    both.disablingFlags = {"quiet"};
    WritePlugin("both.json", Description("both", both));
    Declared once;
    once.runOnce = true;
    once.pluginVersion = "1.0 beta";
    WritePlugin("once.json", Description("once", once));
    Declared done;
    done.provided = {"enum.done"};
    done.runOnce = true;
    done.pluginVersion = "2";
    WritePlugin("done.json", Description("done", done));
    Declared after;
    after.required = {"enum.off", "enum.flagged", "enum.done"};
    WritePlugin("after.json", Description("after", after));
    WritePlugin("broken.json", "{\"metadata\": {\"version\": 7}}\n");
    sandbox_->CopyIn(ORVANE_TEST_PLUGIN_NATIVE_FIRST, PluginFile("libnative_first.so"), 0644);
    WritePlugin("inj.debug", "");
    WritePlugin("README", "");
    WritePlugin("notes.txt", "");
    sandbox_->MakeDirectory(PluginFile("sub"));
    sandbox_->WriteFile(kDebugConfiguration, "inj:::echo inj >> /tmp/record\n");
  }
};

TEST_F(EnumerationE2E, PlainRunLoadsEveryKindAndAppliesEveryFilter) {
  FillMixedDirectory();
  RunResult result =
      Orvane({"--disable-plugins=off", "--plugin-flags=quiet,x", "--run-once=done2"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;

  // Refused plugins never run, and what requires their barriers is not held up.
  EXPECT_THAT(Recorded(), UnorderedElementsAre("alpha", "beta", "once", "after", "inj", "inj",
                                               "native_first start"));
  EXPECT_THAT(Activations(),
              UnorderedElementsAreArray(ActivatedLines(
                  {"alpha", "beta", "once", "after", "native_first", "inj", "inj"})));

  EXPECT_TRUE(SyslogHas(LOG_INFO, "ignoring plugin 'off' due to blacklist."));
  EXPECT_TRUE(
      SyslogHas(LOG_WARNING, "ignoring plugin 'flagged', disabled due to boot flags: quiet ."));
  EXPECT_TRUE(SyslogHas(
      LOG_WARNING, "ignoring plugin 'needy', disabled due to missing required boot flags: y ."));
  EXPECT_TRUE(
      SyslogHas(LOG_WARNING, "ignoring plugin 'both', disabled due to boot flags: quiet ."));
  EXPECT_TRUE(SyslogHas(
      LOG_WARNING, "ignoring plugin 'both', disabled due to missing required boot flags: z ."));
  EXPECT_TRUE(
      SyslogHas(LOG_INFO, "ignoring plugin 'done' because version '2'  has already been run."));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "ignoring plugin 'README' of unspecified type..."));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "ignoring plugin 'notes.txt' of unknown type (txt)..."));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "ignoring plugin 'sub' of unspecified type..."));
  const std::string brokenText = "exception occurred whilst loading plugin broken.json: ";
  bool brokenReported = false;
  for (const SyslogRecord& record : sandbox_->Syslog()) {
    if (record.severity == LOG_WARNING && record.message.starts_with(brokenText)) {
      brokenReported = true;
      EXPECT_THAT(record.message, HasSubstr("Unsupported API version"));
    }
  }
  EXPECT_TRUE(brokenReported) << result.out;
  EXPECT_THAT(sandbox_->Kmsg(), HasSubstr("<1>orvane: " + brokenText));
}

TEST_F(EnumerationE2E, InvokeRunLoadsOnlyTheNamedFilesThroughTheFilters) {
  FillMixedDirectory();
  RunResult result = Orvane({"--invoke", "--method=start",
                             "--plugin=flagged.json,alpha.json,off.json,inj.debug,README,"
                             "notes.txt,libnative_first.so,alpha.json",
                             "--disable-plugins=off", "--plugin-flags=loud"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  // The configuration's own entries come in only through inj.debug, once.
  EXPECT_THAT(Recorded(), UnorderedElementsAre("alpha", "alpha", "inj", "native_first start"));
  EXPECT_THAT(Activations(),
              UnorderedElementsAreArray(ActivatedLines({"alpha", "alpha", "inj", "native_first"})));
  EXPECT_TRUE(
      SyslogHas(LOG_WARNING, "ignoring plugin 'flagged', disabled due to boot flags: loud ."));
  EXPECT_TRUE(SyslogHas(LOG_INFO, "ignoring plugin 'off' due to blacklist."));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "ignoring plugin 'README' of unspecified type..."));
}

TEST_F(EnumerationE2E, EmptyPluginDirectoryWithoutDebugConfigurationRunsNothing) {
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Activations(), IsEmpty());
  EXPECT_THAT(Recorded(), IsEmpty());
}

TEST_F(EnumerationE2E, MissingPluginDirectoryEndsTheRunWithStatusOneSayingWhy) {
  sandbox_->WriteFile(kDebugConfiguration, "inj:::echo inj >> /tmp/record\n");
  RunResult result = Orvane({"--plugin-directory=/srv/absent"});
  EXPECT_EQ(result.exitStatus, 1) << result.out << result.err;
  bool reported = false;
  for (const SyslogRecord& record : sandbox_->Syslog()) {
    if (record.severity == LOG_ERR &&
        record.message.starts_with(
            "unhandled exception whilst enumerating plugins.\nDetails:\n ")) {
      reported = true;
      EXPECT_THAT(record.message, HasSubstr("/srv/absent"));
      EXPECT_THAT(record.message, HasSubstr("No such file or directory"));
    }
  }
  EXPECT_TRUE(reported) << result.out;
  // Nothing ran, not even the debug configuration's injections.
  EXPECT_THAT(Recorded(), IsEmpty());
  EXPECT_THAT(Activations(), IsEmpty());
}

TEST_F(EnumerationE2E, OddFileNamesAndADanglingLinkDoNotStopTheBoot) {
  WritePlugin("two\nlines.json", Description("newline"));
  WritePlugin("caf\xe9\xff.json", Description("latin1"));
  WritePlugin("alpha.json", Description("alpha"));
  std::filesystem::create_symlink("/nowhere/x.json",
                                  sandbox_->HostPath(kPluginDirectory) / "x.json");
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), UnorderedElementsAre("newline", "latin1", "alpha"));
  bool linkReported = false;
  for (const SyslogRecord& record : sandbox_->Syslog()) {
    if (record.message.starts_with("exception occurred whilst loading plugin x.json: ")) {
      linkReported = record.severity == LOG_WARNING;
    }
  }
  EXPECT_TRUE(linkReported) << result.out;
}

}  // namespace
}  // namespace orvane::testing
