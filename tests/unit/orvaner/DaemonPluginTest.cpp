// The daemon plugin: its states, start and stop with their log lines and
// exceptions, deactivation with its kernel-log lines, the activation run
// around start, and the operations it does not have.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DaemonTestSupport.h"
#include "GraphTestSupport.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "orvaner/Exception.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/plugins/DaemonPlugin.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class DaemonPluginTest : public GraphTest {
 protected:
  /// A daemon whose start and stop commands are scripts with these bodies
  /// (none stored for an empty body).
  TestDaemon& Daemon(const std::string& name, const std::string& startBody,
                     const std::string& stopBody) {
    daemons.push_back(std::make_unique<TestDaemon>(name, 7));
    TestDaemon& daemon = *daemons.back();
    if (!startBody.empty()) {
      daemon.SetOperation(DaemonPlugin::kStartOperation,
                          WriteScript(directory, name + "-start", startBody) + " start");
    }
    if (!stopBody.empty()) {
      daemon.SetOperation(DaemonPlugin::kStopOperation,
                          WriteScript(directory, name + "-stop", stopBody) + " stop");
    }
    return daemon;
  }

  /// What @p action logged to standard error (the logging library is not
  /// set up), and the exception text it threw ("" when none).
  template <typename Action>
  std::pair<std::string, std::string> Logged(Action action) {
    std::string thrown;
    ::testing::internal::CaptureStderr();
    try {
      action();
    } catch (const std::exception& error) {
      thrown = error.what();
    }
    return {::testing::internal::GetCapturedStderr(), thrown};
  }

  unit_testing::TemporaryDirectory directory;
  std::vector<std::unique_ptr<TestDaemon>> daemons;
  std::vector<std::string> kernelLog;
  unit_testing::ScopedAlertLogSink alertLogSink{
      [this](const std::string& line) { kernelLog.push_back(line); }};
  DaemonOptionsScope options{true, 5};
};

TEST_F(DaemonPluginTest, NewDaemonIsInStateZeroWithItsNumberAndTheLegacyDaemonClass) {
  TestDaemon daemon("fresh", -12);
  EXPECT_EQ(daemon.DaemonState(), 0);
  EXPECT_EQ(daemon.Number(), -12);
  EXPECT_EQ(daemon.SchedulingClass(), Node::kLegacyDaemonSchedulingClass);
  EXPECT_EQ(daemon.GetApiVersion(), -1);
  EXPECT_FALSE(daemon.SupportsHostProfile());
  EXPECT_TRUE(daemon.HasReverseAction());
}

TEST_F(DaemonPluginTest, OperationLookupReturnsTheStoredLineAndTheLaterOneWins) {
  TestDaemon daemon("ops");
  daemon.SetOperation(DaemonPlugin::kStartOperation, "/a start");
  daemon.SetOperation(DaemonPlugin::kStartOperation, "/b start");
  EXPECT_EQ(daemon.Operation(DaemonPlugin::kStartOperation), "/b start");
  try {
    daemon.Operation(DaemonPlugin::kStopOperation);
    ADD_FAILURE() << "no stop operation was stored";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(), "ops Daemon operations are not initialized");
  }
}

TEST_F(DaemonPluginTest, SuccessfulStartLeavesStateTwoAndLogsStarted) {
  TestDaemon& daemon = Daemon("good", "exit 0", "");
  auto [logged, thrown] = Logged([&] { daemon.Start(); });
  EXPECT_EQ(thrown, "");
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStarted);
  EXPECT_THAT(logged, HasSubstr("good started."));
}

TEST_F(DaemonPluginTest, FailedStartLeavesStateTwentyAndThrowsMethodFailed) {
  TestDaemon& daemon = Daemon("bad", "exit 3", "");
  const std::string command = directory / "bad-start";
  ::testing::internal::CaptureStderr();
  try {
    daemon.Start();
    ADD_FAILURE() << "the start should have failed";
  } catch (const MethodFailedException& failure) {
    EXPECT_EQ(std::string(failure.what()), "bad->start() failed: Execution of command: " + command +
                                               " start failed with status: 3");
  }
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStartFailed);
  EXPECT_THAT(logged, HasSubstr("Orvane failed to start: bad reason: Execution of command: " +
                                command + " start failed with status: 3"));
}

TEST_F(DaemonPluginTest, StartThatTimesOutInWaitModeLeavesStateTwentyAndEndsInTimedOut) {
  DaemonOptionsScope oneSecond(true, 1);
  TestDaemon& daemon =
      Daemon("sluggish", "echo $$ > " + (directory / "pid") + "; exec sleep 60", "");
  auto [logged, thrown] = Logged([&] { daemon.Start(); });
  KillRecordedProcess(directory, "pid");
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStartFailed);
  EXPECT_THAT(thrown, ::testing::StartsWith("sluggish->start() failed: "));
  EXPECT_THAT(thrown, EndsWith("timed out."));
}

TEST_F(DaemonPluginTest, StartWithoutAStartOperationFailsBeforeAnyCommandRuns) {
  TestDaemon& daemon = Daemon("empty", "", "touch " + (directory / "stopped"));
  auto [logged, thrown] = Logged([&] { daemon.Start(); });
  EXPECT_EQ(thrown, "empty->start() failed: empty Daemon operations are not initialized");
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStartFailed);
}

TEST_F(DaemonPluginTest, SuccessfulStopLeavesStateTwelveAndLogsStopped) {
  TestDaemon& daemon = Daemon("calm", "exit 0", "exit 0");
  auto [logged, thrown] = Logged([&] { daemon.Stop(); });
  EXPECT_EQ(thrown, "");
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStopped);
  EXPECT_THAT(logged, HasSubstr("calm stopped."));
}

TEST_F(DaemonPluginTest, StopWithoutAStopOperationFailsWithTheNameAndKeepsTheState) {
  TestDaemon& daemon = Daemon("nostop", "exit 0", "");
  Logged([&] { daemon.Start(); });
  ASSERT_EQ(daemon.DaemonState(), DaemonPlugin::kStarted);
  try {
    ::testing::internal::CaptureStderr();
    daemon.Stop();
    ::testing::internal::GetCapturedStderr();
    ADD_FAILURE() << "the stop should have failed";
  } catch (const MethodFailedException&) {
    ::testing::internal::GetCapturedStderr();
    ADD_FAILURE() << "a failed stop is not wrapped";
  } catch (const Exception& error) {
    const std::string logged = ::testing::internal::GetCapturedStderr();
    EXPECT_STREQ(error.what(), "nostop Daemon operations are not initialized");
    EXPECT_THAT(logged, HasSubstr("Orvane failed to stop: nostop reason: nostop Daemon "
                                  "operations are not initialized"));
  }
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStarted);
}

TEST_F(DaemonPluginTest, FailedStopRethrowsTheRunnersExceptionUnwrapped) {
  TestDaemon& daemon = Daemon("stubborn", "exit 0", "exit 5");
  auto [logged, thrown] = Logged([&] { daemon.Stop(); });
  EXPECT_EQ(thrown, "Execution of command: " + (directory / "stubborn-stop") +
                        " stop failed with status: 5");
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kConstructed);
}

TEST_F(DaemonPluginTest, StopAfterAFailedStartStillRunsTheStopCommand) {
  TestDaemon& daemon = Daemon("retry", "exit 1", "touch " + (directory / "stopped"));
  Logged([&] { daemon.Start(); });
  ASSERT_EQ(daemon.DaemonState(), DaemonPlugin::kStartFailed);
  auto [logged, thrown] = Logged([&] { daemon.Stop(); });
  EXPECT_EQ(thrown, "");
  EXPECT_TRUE(directory.Exists("stopped"));
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStopped);
}

TEST_F(DaemonPluginTest, DeactivationAnnouncesItselfAndItsSuccessInTheKernelLog) {
  TestDaemon& daemon = Daemon("quiet", "exit 0", "exit 0");
  Executor noWorkers(0, false);
  auto [logged, thrown] = Logged([&] { daemon.ExecuteReverse(noWorkers); });
  EXPECT_EQ(thrown, "");
  EXPECT_THAT(kernelLog, ElementsAre("Deactivating Daemon quiet.", "Daemon quiet deactivated."));
  EXPECT_THAT(logged, HasSubstr("executing stop for daemon quiet."));
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStopped);
}

TEST_F(DaemonPluginTest, DeactivatingADaemonWhoseStopFailsLogsTheFailureAndDoesNotThrow) {
  TestDaemon& daemon = Daemon("broken", "exit 0", "exit 2");
  Executor noWorkers(0, false);
  auto [logged, thrown] = Logged([&] { daemon.ExecuteReverse(noWorkers); });
  EXPECT_EQ(thrown, "");
  EXPECT_THAT(kernelLog,
              ElementsAre("Deactivating Daemon broken.",
                          "Daemon broken deactivation failed: Execution of command: " +
                              (directory / "broken-stop") + " stop failed with status: 2"));
}

TEST_F(DaemonPluginTest, ExecuteInAStartRunActivatesAndStartsTheDaemon) {
  RunOptions::Instance().method = "start";
  TestDaemon& daemon = Daemon("active", "touch " + (directory / "started"), "");
  Executor noWorkers(0, false);
  auto [logged, thrown] = Logged([&] { daemon.Execute(noWorkers); });
  EXPECT_EQ(thrown, "");
  EXPECT_TRUE(directory.Exists("started"));
  EXPECT_THAT(kernelLog,
              ElementsAre("Activating Orvane plugin active.", "Orvane plugin active activated."));
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStarted);
}

TEST_F(DaemonPluginTest, ExecuteOfAFailingDaemonReportsTheFailureAndReturns) {
  RunOptions::Instance().method = "start";
  TestDaemon& daemon = Daemon("failing", "exit 3", "");
  Executor noWorkers(0, false);
  auto [logged, thrown] = Logged([&] { daemon.Execute(noWorkers); });
  EXPECT_EQ(thrown, "");
  EXPECT_THAT(logged, HasSubstr("Method invocation failed: failing->start() failed: "));
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin failing.",
                                     "Orvane plugin failing activation failed: Method invocation "
                                     "failed"));
  EXPECT_EQ(daemon.DaemonState(), DaemonPlugin::kStartFailed);
}

TEST_F(DaemonPluginTest, StopPassRunsTheDeactivationOfEveryDaemon) {
  TestDaemon& first = Daemon("first", "exit 0", "echo first >> " + (directory / "order"));
  TestDaemon& second = Daemon("second", "exit 0", "echo second >> " + (directory / "order"));
  second.Requires(first);  // second starts after first, so it stops before it
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    first.ScheduleStop(executor);
    second.ScheduleStop(executor);
    first.WaitStopped();
    second.WaitStopped();
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(directory.Read("order"), "second\nfirst\n");
  EXPECT_EQ(first.DaemonState(), DaemonPlugin::kStopped);
}

TEST_F(DaemonPluginTest, RestartSSLResetAndHostProfileAreNotImplemented) {
  TestDaemon daemon("plain");
  auto message = [](auto operation) {
    try {
      operation();
    } catch (const NotImplementedException& error) {
      return std::string(error.what());
    }
    return std::string("nothing thrown");
  };
  EXPECT_EQ(message([&] { daemon.Restart(); }),
            "method `DaemonPlugin::Restart' is not implemented");
  EXPECT_EQ(message([&] { daemon.SSLReset(); }),
            "method `DaemonPlugin::SSLReset' is not implemented");
  EXPECT_EQ(message([&] { daemon.ApplyHostProfile(); }),
            "method `DaemonPlugin::ApplyHostProfile' is not implemented");
}

}  // namespace
}  // namespace orvane::testing
