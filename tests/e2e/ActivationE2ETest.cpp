// Plugin activation on the sandboxed host's real paths, with an operator at
// a pseudo-terminal: the prompt's exact bytes, the choices, the
// troubleshooting shell, the kernel-log lines and the host-profile files.
// The activationprobe program runs the plugins and types the answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kProbe = "/usr/local/bin/activationprobe";

// What the terminal shows; its output processing turns "\n" into "\r\n".
const std::string kReset = "\x1b[0m";
const std::string kHideCursor = "\x1b[?25l";
const std::string kShowCursor = "\x1b[?25h";
const std::string kEraseLine = "\x1b[2K";

std::string Prompt(const std::string& plugin) {
  return "current plugin: \x1b[36m" + plugin + "\r\n\x1b[35m(c)ontinue" + kReset +
         "\t\x1b[32m(e)xecute" + kReset + "\t\x1b[33m(t)roubleshoot" + kReset + "\t\x1b[31m(s)kip" +
         kReset + kHideCursor;
}

std::string Choice(char key) {
  auto entry = [key](char entryKey, const char* colour, const char* label) {
    return std::string(key == entryKey ? colour : "\x1b[37m") + label + kReset;
  };
  return "\r" + entry('c', "\x1b[35m", "(c)ontinue") + "\t" + entry('e', "\x1b[32m", "(e)xecute") +
         "\t" + entry('t', "\x1b[33m", "(t)roubleshoot") + "\t" + entry('s', "\x1b[31m", "(s)kip") +
         "\r\n";
}

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

std::string Kernel(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += "<6>orvane: " + line + "\n";
  return text;
}

struct Times {
  long long start = 0;
  long long end = 0;
};

class ActivationE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    sandbox_->CopyIn(ORVANE_ACTIVATIONPROBE, kProbe);
  }

  /// Runs the probe; returns the terminal's transcript.
  std::string Probe(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kProbe);
    RunSettings settings;
    settings.timeout = std::chrono::seconds(60);
    RunResult result = sandbox_->Run(arguments, settings);
    EXPECT_EQ(result.exitStatus, 0) << result.err << "\ntranscript:\n" << result.out;
    return result.out;
  }

  std::vector<std::string> Lines(const char* path) {
    std::vector<std::string> lines;
    if (!sandbox_->Exists(path)) return lines;
    std::istringstream text(sandbox_->ReadFile(path));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }
  std::vector<std::string> Runs() { return Lines("/tmp/activation-runs"); }
  std::map<std::string, Times> PluginTimes() {
    std::map<std::string, Times> times;
    for (const std::string& line : Lines("/tmp/activation-times")) {
      std::istringstream fields(line);
      std::string name;
      Times entry;
      fields >> name >> entry.start >> entry.end;
      times[name] = entry;
    }
    return times;
  }
  /// What orvane's identifier sent to syslog, in order.
  std::vector<std::string> OrvaneSyslog() {
    std::vector<std::string> messages;
    for (const SyslogRecord& record : sandbox_->Syslog()) {
      if (record.ident == "orvane") messages.push_back(record.message);
    }
    return messages;
  }

  std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(ActivationE2E, EmptyRequirementsListPromptsForTheVeryFirstPlugin) {
  const std::string transcript =
      Probe({"--interactive", "--answer", "e", "--answer", "e", "first", "second"});
  EXPECT_THAT(transcript, HasSubstr(Prompt("first") + kShowCursor + Choice('e')));
  EXPECT_THAT(transcript, HasSubstr(Prompt("second") + kShowCursor + Choice('e')));
  EXPECT_LT(transcript.find(Prompt("first")), transcript.find("executing start plugin: first"));
  EXPECT_THAT(Runs(), ElementsAre("start first", "start second"));
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin first.", "Orvane plugin first activated.",
                    "Activating Orvane plugin second.", "Orvane plugin second activated."}));
  // The sandbox's console is a plain file: the terminal switches fail quietly.
  EXPECT_EQ(sandbox_->Console(), "");
}

TEST_F(ActivationE2E, PromptingBeginsWithThePluginAfterTheLastRequiredOne) {
  const std::string transcript = Probe(
      {"--interactive", "--requires", "a,b", "--answer", "e", "early", "b", "middle", "a", "next"});
  EXPECT_EQ(Count(transcript, "current plugin: "), 1u) << transcript;
  EXPECT_THAT(transcript, HasSubstr(Prompt("next") + kShowCursor + Choice('e')));
  EXPECT_THAT(Runs(),
              ElementsAre("start early", "start b", "start middle", "start a", "start next"));
  EXPECT_EQ(Count(sandbox_->Kmsg(), " activated."), 5u);
  EXPECT_EQ(sandbox_->Console(), "");
}

TEST_F(ActivationE2E, OtherKeysAreIgnoredAndUpperCaseFolds) {
  const std::string transcript = Probe({"--interactive", "--answer", "xE", "net"});
  // Nothing typed is echoed between hiding and showing the cursor.
  EXPECT_THAT(transcript, HasSubstr(Prompt("net") + kShowCursor + Choice('e')));
  EXPECT_THAT(Runs(), ElementsAre("start net"));
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin net.", "Orvane plugin net activated."}));
}

TEST_F(ActivationE2E, SkipRunsNothingAnnouncesNothingAndLeavesTheEndTime) {
  const std::string transcript =
      Probe({"--interactive", "--answer", "s", "--answer", "e", "skipped", "next"});
  const std::string promptEnd = Prompt("skipped") + kShowCursor;
  const auto at = transcript.find(promptEnd);
  ASSERT_NE(at, std::string::npos) << transcript;
  // The log line comes first, then the redrawn choice.
  const std::string afterPrompt = transcript.substr(at + promptEnd.size());
  const auto logLine =
      afterPrompt.find("orvane: skipping plugin skipped (interactive mode request)\r\n");
  ASSERT_NE(logLine, std::string::npos) << transcript;
  EXPECT_LT(logLine, afterPrompt.find(Choice('s')));
  EXPECT_THAT(Runs(), ElementsAre("start next"));
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin next.", "Orvane plugin next activated."}));
  const auto times = PluginTimes();
  EXPECT_GT(times.at("skipped").start, 0);
  EXPECT_EQ(times.at("skipped").end, 0);
  EXPECT_GE(times.at("next").end, times.at("next").start);
  EXPECT_THAT(OrvaneSyslog(), ElementsAre("skipping plugin skipped (interactive mode request)",
                                          "executing start plugin: next"));
}

TEST_F(ActivationE2E, TroubleshootOpensTheShellOnTheTerminalThenExecutes) {
  const std::string transcript =
      Probe({"--interactive", "--answer", "t", "--shell", "echo ran > /tmp/shell-marker; exit\n",
             "--answer", "e", "net", "later"});
  EXPECT_EQ(sandbox_->ReadFile("/tmp/shell-marker"), "ran\n");
  const std::string choice = Prompt("net") + kShowCursor + Choice('t');
  const auto shellAt = transcript.find(choice);
  ASSERT_NE(shellAt, std::string::npos) << transcript;
  const std::string afterChoice = transcript.substr(shellAt + choice.size());
  // The shell's prompt and the echoed command, then the line is erased and
  // the plugin runs without a second prompt.
  const auto commandEcho = afterChoice.find("orvane-shell> echo ran > /tmp/shell-marker; exit\r\n");
  const auto erased = afterChoice.find(kEraseLine);
  const auto executing = afterChoice.find("executing start plugin: net");
  ASSERT_NE(commandEcho, std::string::npos) << transcript;
  ASSERT_NE(erased, std::string::npos) << transcript;
  EXPECT_LT(commandEcho, erased);
  EXPECT_LT(erased, executing);
  EXPECT_EQ(Count(transcript, Prompt("net")), 1u);
  // The shell leaves interactive mode on: the next plugin is asked about.
  EXPECT_THAT(afterChoice, HasSubstr(Prompt("later") + kShowCursor + Choice('e')));
  EXPECT_THAT(Runs(), ElementsAre("start net", "start later"));
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin net.", "Orvane plugin net activated.",
                    "Activating Orvane plugin later.", "Orvane plugin later activated."}));
}

TEST_F(ActivationE2E, ContinueExecutesAndStopsPromptingForLaterPlugins) {
  const std::string transcript =
      Probe({"--interactive", "--answer", "C", "first", "second", "third"});
  EXPECT_THAT(transcript, HasSubstr(Prompt("first") + kShowCursor + Choice('c')));
  EXPECT_EQ(Count(transcript, "current plugin: "), 1u);
  EXPECT_THAT(Runs(), ElementsAre("start first", "start second", "start third"));
  EXPECT_EQ(Count(sandbox_->Kmsg(), " activated."), 3u);
  EXPECT_EQ(sandbox_->Console(), "");
}

TEST_F(ActivationE2E, WithoutInteractiveModeNothingIsAsked) {
  const std::string transcript = Probe({"first", "second"});
  EXPECT_THAT(transcript, Not(HasSubstr("current plugin: ")));
  EXPECT_THAT(transcript, Not(HasSubstr(kHideCursor)));
  EXPECT_THAT(Runs(), ElementsAre("start first", "start second"));
}

TEST_F(ActivationE2E, FailureAndTraceReachTheKernelLogAndSyslog) {
  Probe({"--trace", "fail-net", "ok"});
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin fail-net.",
                    "Orvane plugin fail-net activation failed: fail-net->start() failed: exit "
                    "status 1",
                    "Activating Orvane plugin ok.", "Orvane plugin ok activated."}));
  const std::vector<std::string> syslog = OrvaneSyslog();
  ASSERT_EQ(syslog.size(), 7u) << ::testing::PrintToString(syslog);
  EXPECT_EQ(syslog[0], "starting execution of plugin: fail-net");
  EXPECT_EQ(syslog[1], "executing start plugin: fail-net");
  EXPECT_EQ(syslog[2], "Method invocation failed: fail-net->start() failed: exit status 1");
  const auto times = PluginTimes();
  EXPECT_EQ(syslog[3], "completed execution of plugin: fail-net (took " +
                           std::to_string(times.at("fail-net").end - times.at("fail-net").start) +
                           " us)");
  EXPECT_EQ(syslog[4], "starting execution of plugin: ok");
  EXPECT_EQ(syslog[5], "executing start plugin: ok");
  EXPECT_EQ(syslog[6], "completed execution of plugin: ok (took " +
                           std::to_string(times.at("ok").end - times.at("ok").start) + " us)");
}

TEST_F(ActivationE2E, CompressedHostProfileAloneMakesTheProfileApply) {
  sandbox_->WriteFile("/etc/talvek/hostprofile.xml.gz", "not really gzip");
  Probe({"--supports-profile", "net"});
  EXPECT_THAT(Runs(), ElementsAre("profile net"));
  EXPECT_THAT(OrvaneSyslog(), ElementsAre("executing host profile plugin: net"));
}

TEST_F(ActivationE2E, WithoutHostProfileFilesStartRuns) {
  sandbox_->Remove("/etc/talvek/hostprofile.xml");
  sandbox_->Remove("/etc/talvek/hostprofile.xml.gz");
  Probe({"--supports-profile", "net"});
  EXPECT_THAT(Runs(), ElementsAre("start net"));
}

TEST_F(ActivationE2E, UnknownMethodNameIsAnnouncedAsActivated) {
  Probe({"--method", "restart", "net"});
  EXPECT_THAT(Runs(), IsEmpty());
  EXPECT_EQ(sandbox_->Kmsg(),
            Kernel({"Activating Orvane plugin net.", "Orvane plugin net activated."}));
}

}  // namespace
}  // namespace orvane::testing
