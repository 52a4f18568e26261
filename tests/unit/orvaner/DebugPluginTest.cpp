#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/plugins/DebugPlugin.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Each test links its injections into a barrier registry of its own, which
/// outlives them.
class DebugPluginTest : public ::testing::Test {
 protected:
  void SetUp() override { Log_Exit(); }

  /// Runs Start of a barrier-free injection of @p command and returns what
  /// it logged (standard error, before logging is set up).
  std::string StartLogged(const std::string& name, const std::string& command) {
    DebugPlugin plugin(name, {}, {}, command, registry_);
    ::testing::internal::CaptureStderr();
    EXPECT_NO_THROW(plugin.Start());
    return ::testing::internal::GetCapturedStderr();
  }

  std::string ReadFile(const std::string& name) {
    std::ifstream stream(directory_ / name);
    std::stringstream content;
    content << stream.rdbuf();
    return content.str();
  }

  BarrierRegistry registry_;
  unit_testing::TemporaryDirectory temporary_;
  const std::filesystem::path& directory_ = temporary_.Path();
};

TEST_F(DebugPluginTest, ConstructionLinksRequiredThenProvidedBarriersInOrder) {
  DebugPlugin plugin("inj", {"a", "b"}, {"c", "d"}, "echo hi", registry_);
  Node* a = registry_.GetBarrier("a", false);
  Node* b = registry_.GetBarrier("b", false);
  Node* c = registry_.GetBarrier("c", false);
  Node* d = registry_.GetBarrier("d", false);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_NE(c, nullptr);
  ASSERT_NE(d, nullptr);
  EXPECT_THAT(plugin.Predecessors(), ElementsAre(a, b));
  EXPECT_THAT(plugin.Successors(), ElementsAre(c, d));
  EXPECT_THAT(a->Successors(), ElementsAre(&plugin));
  EXPECT_THAT(c->Predecessors(), ElementsAre(&plugin));
  EXPECT_EQ(plugin.Name(), "inj");
  EXPECT_EQ(plugin.Command(), "echo hi");
}

TEST_F(DebugPluginTest, ExistingBarrierIsSharedByTwoInjections) {
  DebugPlugin provider("first", {}, {"x"}, "true", registry_);
  DebugPlugin requirer("second", {"x"}, {}, "true", registry_);
  Node* barrier = registry_.GetBarrier("x", false);
  EXPECT_THAT(barrier->Predecessors(), ElementsAre(&provider));
  EXPECT_THAT(barrier->Successors(), ElementsAre(&requirer));
}

TEST_F(DebugPluginTest, InjectionWithoutBarriersHasNoEdgesAndTheInitialDeclarations) {
  DebugPlugin plugin("lonely", {}, {}, "true", registry_);
  EXPECT_THAT(plugin.Predecessors(), IsEmpty());
  EXPECT_THAT(plugin.Successors(), IsEmpty());
  EXPECT_EQ(plugin.GetApiVersion(), -1);
  EXPECT_FALSE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "");
  EXPECT_THAT(plugin.GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin.GetDisablingFlags(), IsEmpty());
  EXPECT_EQ(plugin.SchedulingClass(), Node::kDefaultSchedulingClass);
  EXPECT_EQ(plugin.State(), NodeState::Idle);
}

TEST_F(DebugPluginTest, StartRunsTheCommandThroughTheShell) {
  const std::string output = (directory_ / "out").string();
  EXPECT_EQ(StartLogged("inj", "echo one > " + output + " && printf two >> " + output), "");
  EXPECT_EQ(ReadFile("out"), "one\ntwo");
}

TEST_F(DebugPluginTest, ExitOneLogsTheRawStatusWord) {
  std::string logged = StartLogged("inj", "exit 1");
  EXPECT_THAT(logged, ::testing::EndsWith("debug injection 'inj' returned 0x000100\n"));
}

TEST_F(DebugPluginTest, OtherExitCodesLogTheirStatusWords) {
  EXPECT_THAT(StartLogged("three", "exit 3"),
              ::testing::EndsWith("debug injection 'three' returned 0x000300\n"));
  EXPECT_THAT(StartLogged("max", "exit 255"),
              ::testing::EndsWith("debug injection 'max' returned 0x00ff00\n"));
}

TEST_F(DebugPluginTest, MissingProgramLogsTheShellsStatus) {
  EXPECT_THAT(StartLogged("gone", "/nonexistent/program"),
              ::testing::EndsWith("debug injection 'gone' returned 0x007f00\n"));
}

TEST_F(DebugPluginTest, ShellKilledByASignalLogsTheSignalInTheStatusWord) {
  EXPECT_THAT(StartLogged("term", "kill -TERM $$"),
              ::testing::EndsWith("debug injection 'term' returned 0x00000f\n"));
  EXPECT_THAT(StartLogged("kill", "kill -KILL $$"),
              ::testing::EndsWith("debug injection 'kill' returned 0x000009\n"));
}

TEST_F(DebugPluginTest, SystemFailingLogsMinusOne) {
  // With SIGCHLD ignored the shell is reaped by the kernel, so system()
  // cannot collect its status and returns -1.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &previous), 0);
  std::string logged = StartLogged("lost", "true");
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_THAT(logged, ::testing::EndsWith("debug injection 'lost' returned 0xffffffff\n"));
}

TEST_F(DebugPluginTest, InvokeStartOfAFailingInjectionSucceeds) {
  DebugPlugin plugin("inj", {}, {}, "exit 1", registry_);
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(plugin.InvokeMethod("start"));
  ::testing::internal::GetCapturedStderr();
}

TEST_F(DebugPluginTest, FailingInjectionIsStillActivatedAndReleasesItsDependants) {
  DebugPlugin failing("failing", {}, {"done"}, "exit 1", registry_);
  const std::string output = (directory_ / "after").string();
  DebugPlugin after("after", {"done"}, {}, "echo ran > " + output, registry_);
  RunOptions& options = RunOptions::Instance();
  ASSERT_FALSE(options.interactive);
  ASSERT_TRUE(options.method.empty());
  std::vector<std::string> kernelLog;
  const unit_testing::ScopedAlertLogSink alertLogSink(
      [&kernelLog](const std::string& line) { kernelLog.push_back(line); });
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    failing.ScheduleStart(executor);
    after.ScheduleStart(executor);
    failing.WaitStarted();
    after.WaitStarted();
  }
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(logged, ::testing::HasSubstr("debug injection 'failing' returned 0x000100\n"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin failing.", "Orvane plugin failing activated.",
                          "Activating Orvane plugin after.", "Orvane plugin after activated."));
  EXPECT_EQ(ReadFile("after"), "ran\n");
}

TEST_F(DebugPluginTest, HasNoHostProfileStep) {
  DebugPlugin plugin("inj", {}, {}, "true", registry_);
  EXPECT_FALSE(plugin.SupportsHostProfile());
  try {
    plugin.ApplyHostProfile();
    ADD_FAILURE() << "ApplyHostProfile did not throw";
  } catch (const NotImplementedException& error) {
    EXPECT_STREQ(error.what(), "method `DebugPlugin::ApplyHostProfile' is not implemented");
  }
}

// ---- outcomes of the shell, without processes

TEST_F(DebugPluginTest, StartHandsTheCommandToTheShellOnce) {
  unit_testing::FakeSpawner spawner;
  EXPECT_EQ(StartLogged("inj", "echo hi > /somewhere"), "");
  EXPECT_THAT(spawner.Calls(), ElementsAre("shell echo hi > /somewhere"));
}

TEST_F(DebugPluginTest, ShellExitingWithTwoLogsTheStatusWordWithoutAProcess) {
  unit_testing::FakeSpawner spawner;
  spawner.shellStatus = process::ExitStatus::ExitedWith(2);
  EXPECT_THAT(StartLogged("two", "anything"),
              ::testing::EndsWith("debug injection 'two' returned 0x000200\n"));
}

TEST_F(DebugPluginTest, ShellKilledBySignalLogsTheStatusWordWithoutAProcess) {
  unit_testing::FakeSpawner spawner;
  spawner.shellStatus = process::ExitStatus::KilledBy(SIGSEGV);
  EXPECT_THAT(StartLogged("segv", "anything"),
              ::testing::EndsWith("debug injection 'segv' returned 0x00000b\n"));
}

TEST_F(DebugPluginTest, ShellThatCannotBeRunLogsMinusOneWithoutAProcess) {
  unit_testing::FakeSpawner spawner;
  spawner.shellStatus = process::ExitStatus::NotCollected(EAGAIN);
  EXPECT_THAT(StartLogged("nofork", "anything"),
              ::testing::EndsWith("debug injection 'nofork' returned 0xffffffff\n"));
}

}  // namespace
}  // namespace orvane
