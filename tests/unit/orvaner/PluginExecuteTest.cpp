// The activation sequence of a plugin: alerts, log lines, times, the method
// chosen, and the interactive gate with a scripted operator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <thread>

#include "GraphTestSupport.h"
#include "TestSeams.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/plugins/InteractiveConsole.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// A plugin that keeps Plugin's own activation sequence; its operations
/// record and then do what a test sets.
class ActivatedPlugin : public Plugin {
 public:
  ActivatedPlugin(std::string name, RunLog& log, bool supportsHostProfile = false)
      : Plugin(std::move(name)), log_(log), supportsHostProfile_(supportsHostProfile) {}

  std::function<void()> onStart = [] {};
  std::function<void()> onApplyHostProfile = [] {};

  void Start() override {
    log_.Add("start " + Name());
    onStart();
  }
  bool SupportsHostProfile() const override { return supportsHostProfile_; }
  void ApplyHostProfile() override {
    log_.Add("profile " + Name());
    onApplyHostProfile();
  }

  using Plugin::endTime;
  using Plugin::startTime;

 private:
  RunLog& log_;
  bool supportsHostProfile_;
};

/// Stands in for the operator: records what the console was asked to do and
/// answers each prompt with the next scripted key.
class ScriptedConsole : public InteractiveConsole {
 public:
  std::vector<char> answers;
  std::vector<std::string> calls;

  char Prompt(const std::string& pluginName) override {
    calls.push_back("prompt " + pluginName);
    if (answers.empty()) {
      ADD_FAILURE() << "unexpected prompt for " << pluginName;
      return kExecute;
    }
    const char answer = answers.front();
    answers.erase(answers.begin());
    return answer;
  }
  void ShowChoice(char key) override { calls.push_back(std::string("choice ") + key); }
  void SwitchConsole(int terminal) override {
    calls.push_back("switch " + std::to_string(terminal));
  }
  void RunTroubleshootingShell() override { calls.push_back("shell"); }
};

class PluginExecuteTest : public GraphTest {
 protected:
  void SetUp() override {
    GraphTest::SetUp();
    char pattern[] = "/tmp/orvane-execute-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    directory = pattern;
    profile = directory / "hostprofile.xml";
    compressedProfile = directory / "hostprofile.xml.gz";
    hostProfileFiles.emplace(profile, compressedProfile);
    saved = Snapshot(RunOptions::Instance());
    RunOptions& options = RunOptions::Instance();
    options.interactive = false;
    options.interactiveModeRequires.clear();
    options.trace = false;
    options.method.clear();
  }

  void TearDown() override {
    Restore(saved);
    fs::remove_all(directory);
    GraphTest::TearDown();
  }

  /// Runs Execute as a worker would and returns what it logged.
  std::string Execute(Plugin& plugin) {
    ::testing::internal::CaptureStderr();
    Executor noWorkers(0, false);
    plugin.Execute(noWorkers);
    return ::testing::internal::GetCapturedStderr();
  }

  static void Touch(const fs::path& path) { std::ofstream(path) << "<profile/>"; }

  struct Options {
    bool interactive;
    std::vector<std::string> interactiveModeRequires;
    bool trace;
    std::string method;
  };
  static Options Snapshot(const RunOptions& options) {
    return {options.interactive, options.interactiveModeRequires, options.trace, options.method};
  }
  static void Restore(const Options& snapshot) {
    RunOptions& options = RunOptions::Instance();
    options.interactive = snapshot.interactive;
    options.interactiveModeRequires = snapshot.interactiveModeRequires;
    options.trace = snapshot.trace;
    options.method = snapshot.method;
  }

  std::vector<std::string> kernelLog;
  unit_testing::ScopedAlertLogSink alertLogSink{
      [this](const std::string& line) { kernelLog.push_back(line); }};
  ScriptedConsole console;
  unit_testing::ScopedActivationConsole activationConsole{&console};
  fs::path directory, profile, compressedProfile;
  std::optional<unit_testing::ScopedHostProfileFiles> hostProfileFiles;
  Options saved;
};

bool IsSet(const timeval& time) { return time.tv_sec != 0 || time.tv_usec != 0; }

// --- outcome alerts, log lines and times

TEST_F(PluginExecuteTest, SuccessfulStartIsAnnouncedBeforeAndAfter) {
  ActivatedPlugin plugin("net", runLog);
  const std::string logged = Execute(plugin);
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start net"));
  EXPECT_EQ(logged, "executing start plugin: net\n");
}

TEST_F(PluginExecuteTest, BothTimesAreSetAroundTheMethod) {
  ActivatedPlugin plugin("net", runLog);
  timeval before{}, during{}, after{};
  plugin.onStart = [&] {
    gettimeofday(&during, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  gettimeofday(&before, nullptr);
  Execute(plugin);
  gettimeofday(&after, nullptr);
  auto micros = [](const timeval& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
  };
  EXPECT_LE(micros(before), micros(plugin.GetStartTime()));
  EXPECT_LE(micros(plugin.GetStartTime()), micros(during));
  EXPECT_LE(micros(during) + 20000, micros(plugin.GetEndTime()));
  EXPECT_LE(micros(plugin.GetEndTime()), micros(after));
  EXPECT_GE(plugin.GetElapsedMicroseconds(), 20000);
}

TEST_F(PluginExecuteTest, FailedMethodGivesItsMessageAsTheReason) {
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { throw MethodFailedException("start", "net", "exit status 3"); };
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, HasSubstr("Method invocation failed: net->start() failed: exit status 3\n"));
  EXPECT_THAT(
      kernelLog,
      ElementsAre("Activating Orvane plugin net.",
                  "Orvane plugin net activation failed: net->start() failed: exit status 3"));
  EXPECT_TRUE(IsSet(plugin.GetEndTime()));
}

TEST_F(PluginExecuteTest, OtherStandardExceptionIsUnhandledWithItsText) {
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { throw std::runtime_error("disk full"); };
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, HasSubstr("unhandled exception whilst processing net: disk full\n"));
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin net.",
                                     "Orvane plugin net activation failed: disk full"));
}

TEST_F(PluginExecuteTest, NotImplementedOperationIsAnUnhandledException) {
  ActivatedPlugin plugin("inject", runLog, true);
  Touch(profile);
  plugin.onApplyHostProfile = [] {
    throw NotImplementedException("DebugPlugin::ApplyHostProfile");
  };
  const std::string text = NotImplementedException("DebugPlugin::ApplyHostProfile").what();
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, HasSubstr("unhandled exception whilst processing inject: " + text + "\n"));
  EXPECT_THAT(logged, Not(HasSubstr("Method invocation failed")));
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin inject.",
                                     "Orvane plugin inject activation failed: " + text));
}

TEST_F(PluginExecuteTest, UnknownThrownValueIsIgnoredWithAFixedReason) {
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { throw 42; };
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, HasSubstr("ignoring unknown exception whilst processing net ...\n"));
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin net.",
                                     "Orvane plugin net activation failed: unknown exception"));
  EXPECT_TRUE(IsSet(plugin.GetEndTime()));
}

TEST_F(PluginExecuteTest, AlertKeepsPercentSignsOfTheNameAndReason) {
  ActivatedPlugin plugin("100%s", runLog);
  plugin.onStart = [] { throw std::runtime_error("50% %d done"); };
  Execute(plugin);
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin 100%s.",
                                     "Orvane plugin 100%s activation failed: 50% %d done"));
}

// --- trace lines

TEST_F(PluginExecuteTest, TraceAddsStartingAndCompletedLinesWithTheElapsedTime) {
  RunOptions::Instance().trace = true;
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
  const std::string logged = Execute(plugin);
  EXPECT_EQ(logged,
            "starting execution of plugin: net\n"
            "executing start plugin: net\n"
            "completed execution of plugin: net (took " +
                std::to_string(plugin.GetElapsedMicroseconds()) + " us)\n");
  EXPECT_GE(plugin.GetElapsedMicroseconds(), 5000);
}

TEST_F(PluginExecuteTest, TraceLineIsWrittenForAFailureToo) {
  RunOptions::Instance().trace = true;
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { throw std::runtime_error("disk full"); };
  const std::string logged = Execute(plugin);
  EXPECT_TRUE(std::regex_search(
      logged, std::regex("unhandled exception whilst processing net: disk full\n"
                         "completed execution of plugin: net \\(took [0-9]+ us\\)\n$")))
      << logged;
}

TEST_F(PluginExecuteTest, WithoutTraceThereAreNoTraceLines) {
  ActivatedPlugin plugin("net", runLog);
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, Not(HasSubstr("execution of plugin")));
}

// --- a method named on the command line

TEST_F(PluginExecuteTest, NamedMethodRunsThroughInvokeMethod) {
  RunOptions::Instance().method = "apply_host_profile";
  ActivatedPlugin plugin("net", runLog);  // no host-profile support: the name decides
  const std::string logged = Execute(plugin);
  EXPECT_EQ(logged, "executing host profile plugin: net\n");
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile net"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
}

TEST_F(PluginExecuteTest, UnknownMethodNameIsAnnouncedAsActivated) {
  RunOptions::Instance().method = "stop";
  ActivatedPlugin plugin("net", runLog);
  const std::string logged = Execute(plugin);
  EXPECT_EQ(logged, "");
  EXPECT_THAT(runLog.Entries(), IsEmpty());
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
  EXPECT_TRUE(IsSet(plugin.GetEndTime()));
}

TEST_F(PluginExecuteTest, FailedNamedMethodHasAFixedReason) {
  RunOptions::Instance().method = "start";
  ActivatedPlugin plugin("net", runLog);
  plugin.onStart = [] { throw MethodFailedException("start", "net", "exit status 1"); };
  const std::string logged = Execute(plugin);
  EXPECT_THAT(logged, HasSubstr("Method invocation failed: net->start() failed: exit status 1\n"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.",
                          "Orvane plugin net activation failed: Method invocation failed"));
}

TEST_F(PluginExecuteTest, NamedMethodDoesNotLookForAHostProfile) {
  RunOptions::Instance().method = "start";
  ActivatedPlugin first("first", runLog, true);
  Execute(first);
  Touch(profile);
  RunOptions::Instance().method.clear();
  ActivatedPlugin second("second", runLog, true);
  Execute(second);  // the first run never tested the files, so this one sees the profile
  EXPECT_THAT(runLog.Entries(), ElementsAre("start first", "profile second"));
}

// --- the host profile

TEST_F(PluginExecuteTest, OnlyTheCompressedProfileMakesTheProfileApplyInsteadOfStart) {
  Touch(compressedProfile);
  ActivatedPlugin plugin("net", runLog, true);
  const std::string logged = Execute(plugin);
  EXPECT_EQ(logged, "executing host profile plugin: net\n");
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile net"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
}

TEST_F(PluginExecuteTest, PlainProfileMakesTheProfileApply) {
  Touch(profile);
  ActivatedPlugin plugin("net", runLog, true);
  Execute(plugin);
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile net"));
}

TEST_F(PluginExecuteTest, ProfileCreatedDuringTheRunChangesNothing) {
  ActivatedPlugin first("first", runLog, true), second("second", runLog, true);
  Execute(first);
  Touch(profile);
  Touch(compressedProfile);
  Execute(second);
  EXPECT_THAT(runLog.Entries(), ElementsAre("start first", "start second"));
}

TEST_F(PluginExecuteTest, ProfileRemovedDuringTheRunIsStillApplied) {
  Touch(compressedProfile);
  ActivatedPlugin first("first", runLog, true), second("second", runLog, true);
  Execute(first);
  fs::remove(compressedProfile);
  Execute(second);
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile first", "profile second"));
}

TEST_F(PluginExecuteTest, PluginWithoutProfileSupportStartsAndLeavesTheTestToOthers) {
  ActivatedPlugin plain("plain", runLog, false), supporting("supporting", runLog, true);
  Touch(profile);
  Execute(plain);
  EXPECT_THAT(runLog.Entries(), ElementsAre("start plain"));
  fs::remove(profile);
  Execute(supporting);  // the first test of the files happens here
  EXPECT_THAT(runLog.Entries(), ElementsAre("start plain", "start supporting"));
}

TEST_F(PluginExecuteTest, ProfileWhoseStatusCannotBeReadCountsAsAbsent) {
  const fs::path notADirectory = directory / "file";
  Touch(notADirectory);
  hostProfileFiles.emplace(notADirectory / "hostprofile.xml", notADirectory / "hostprofile.xml.gz");
  ActivatedPlugin plugin("net", runLog, true);
  Execute(plugin);
  EXPECT_THAT(runLog.Entries(), ElementsAre("start net"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
}

TEST_F(PluginExecuteTest, FailedProfileApplicationIsReportedLikeAFailedStart) {
  Touch(profile);
  ActivatedPlugin plugin("net", runLog, true);
  plugin.onApplyHostProfile = [] {
    throw MethodFailedException("apply_host_profile", "net", "error while executing the cli");
  };
  Execute(plugin);
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile net"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.",
                          "Orvane plugin net activation failed: net->apply_host_profile() failed: "
                          "error while executing the cli"));
}

// --- the interactive gate

TEST_F(PluginExecuteTest, WithoutInteractiveModeTheConsoleIsLeftAlone) {
  ActivatedPlugin plugin("net", runLog);
  Execute(plugin);
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(PluginExecuteTest, EmptyRequirementsListPromptsForTheFirstPlugin) {
  RunOptions::Instance().interactive = true;
  console.answers = {'e'};
  ActivatedPlugin plugin("first", runLog);
  Execute(plugin);
  EXPECT_THAT(console.calls, ElementsAre("switch 1", "prompt first", "choice e"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start first"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin first.", "Orvane plugin first activated."));
  EXPECT_TRUE(RunOptions::Instance().interactive);
}

TEST_F(PluginExecuteTest, PromptingBeginsAfterTheLastRequiredPlugin) {
  RunOptions& options = RunOptions::Instance();
  options.interactive = true;
  options.interactiveModeRequires = {"a", "b"};
  console.answers = {'e'};
  ActivatedPlugin early("early", runLog), b("b", runLog), a("a", runLog), next("next", runLog);

  Execute(early);
  EXPECT_THAT(console.calls, IsEmpty());
  EXPECT_THAT(options.interactiveModeRequires, ElementsAre("a", "b"));
  Execute(b);
  EXPECT_THAT(console.calls, IsEmpty());
  EXPECT_THAT(options.interactiveModeRequires, ElementsAre("a"));
  Execute(a);  // completes the list: switches to the boot terminal, no prompt
  EXPECT_THAT(console.calls, ElementsAre("switch 1"));
  EXPECT_THAT(options.interactiveModeRequires, IsEmpty());
  Execute(next);
  EXPECT_THAT(console.calls, ElementsAre("switch 1", "switch 1", "prompt next", "choice e"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start early", "start b", "start a", "start next"));
}

TEST_F(PluginExecuteTest, EveryOccurrenceOfARequiredNameIsRemoved) {
  RunOptions& options = RunOptions::Instance();
  options.interactive = true;
  options.interactiveModeRequires = {"a", "b", "a"};
  ActivatedPlugin a("a", runLog);
  Execute(a);
  EXPECT_THAT(options.interactiveModeRequires, ElementsAre("b"));
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(PluginExecuteTest, RequiredNamesCompareExactly) {
  RunOptions& options = RunOptions::Instance();
  options.interactive = true;
  options.interactiveModeRequires = {"Net", "net "};
  ActivatedPlugin plugin("net", runLog);
  Execute(plugin);
  EXPECT_THAT(options.interactiveModeRequires, ElementsAre("Net", "net "));
  EXPECT_THAT(console.calls, IsEmpty());
  EXPECT_THAT(runLog.Entries(), ElementsAre("start net"));
}

TEST_F(PluginExecuteTest, SkipRunsNothingAnnouncesNothingAndLeavesTheEndTime) {
  RunOptions::Instance().interactive = true;
  RunOptions::Instance().trace = true;
  console.answers = {'s'};
  ActivatedPlugin plugin("net", runLog);
  plugin.endTime = {7, 8};
  const std::string logged = Execute(plugin);
  EXPECT_EQ(logged, "skipping plugin net (interactive mode request)\n");
  EXPECT_THAT(console.calls, ElementsAre("switch 1", "prompt net", "choice s"));
  EXPECT_THAT(runLog.Entries(), IsEmpty());
  EXPECT_THAT(kernelLog, IsEmpty());
  EXPECT_EQ(plugin.GetEndTime().tv_sec, 7);
  EXPECT_EQ(plugin.GetEndTime().tv_usec, 8);
  EXPECT_TRUE(IsSet(plugin.GetStartTime()));
}

TEST_F(PluginExecuteTest, ContinueExecutesAndStopsPromptingForGood) {
  RunOptions::Instance().interactive = true;
  console.answers = {'c'};
  ActivatedPlugin first("first", runLog), second("second", runLog);
  Execute(first);
  EXPECT_FALSE(RunOptions::Instance().interactive);
  Execute(second);
  EXPECT_THAT(console.calls, ElementsAre("switch 1", "prompt first", "choice c", "switch 11"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start first", "start second"));
}

TEST_F(PluginExecuteTest, TroubleshootRunsTheShellThenExecutesWithoutAskingAgain) {
  RunOptions::Instance().interactive = true;
  console.answers = {'t'};
  ActivatedPlugin plugin("net", runLog);
  Execute(plugin);
  EXPECT_THAT(console.calls, ElementsAre("switch 1", "prompt net", "choice t", "shell"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start net"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin net.", "Orvane plugin net activated."));
}

TEST_F(PluginExecuteTest, EveryPluginIsPromptedUntilTheOperatorContinues) {
  RunOptions::Instance().interactive = true;
  console.answers = {'e', 's', 'e'};
  ActivatedPlugin one("one", runLog), two("two", runLog), three("three", runLog);
  Execute(one);
  Execute(two);
  Execute(three);
  EXPECT_THAT(runLog.Entries(), ElementsAre("start one", "start three"));
  EXPECT_THAT(console.calls,
              ElementsAre("switch 1", "prompt one", "choice e", "switch 1", "prompt two",
                          "choice s", "switch 1", "prompt three", "choice e"));
}

// --- under the scheduler

TEST_F(PluginExecuteTest, FailedAndSkippedPluginsStillReleaseTheirDependants) {
  RunOptions::Instance().interactive = true;
  console.answers = {'e', 's', 'e'};
  ActivatedPlugin failing("failing", runLog), skipped("skipped", runLog), last("last", runLog);
  failing.onStart = [] { throw std::runtime_error("broken"); };
  skipped.Requires(failing);
  last.Requires(skipped);
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    {
      GraphLockGuard lock;
      last.ScheduleStart(executor);
    }
    last.WaitStarted();
  }
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(runLog.Entries(), ElementsAre("start failing", "start last"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin failing.",
                          "Orvane plugin failing activation failed: broken",
                          "Activating Orvane plugin last.", "Orvane plugin last activated."));
  EXPECT_THAT(logged, HasSubstr("skipping plugin skipped (interactive mode request)\n"));
  GraphLockGuard lock;
  EXPECT_EQ(skipped.State(), NodeState::Started);
}

}  // namespace
}  // namespace orvane::testing
