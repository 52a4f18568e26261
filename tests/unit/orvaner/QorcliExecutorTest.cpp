// The parts of the executor handle that need no executor process, and its
// answer to one request; the protocol itself is tested end to end, on the
// sandboxed host's socket path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

#include "CppTools/AutoCli/Dispatcher.h"
#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/cli/QorcliExecutor.h"

namespace orvane {
namespace {

TEST(QorcliExecutorTest, InstanceIsOneObjectAndMakesTheProcessIgnoreSigpipe) {
  QorcliExecutor& first = QorcliExecutor::Instance();
  QorcliExecutor& second = QorcliExecutor::Instance();
  EXPECT_EQ(&first, &second);

  struct sigaction current {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &current), 0);
  EXPECT_EQ(current.sa_handler, SIG_IGN);
}

// ---- the answer to one request, with a dispatcher of the test's own

/// A dispatcher with one command, "test true", whose program succeeds.
class AnswerRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    directory_.Write("defs/test.json", R"({"commands": [
        {"path": ["test", "true"], "exec": ["/bin/true"]}]})");
    dispatcher_.AddExternalDirectory(directory_ / "defs");
  }

  std::optional<std::int32_t> Answer(const char* message) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    std::optional<std::int32_t> status = QorcliExecutor::AnswerRequest(message, dispatcher_);
    ::testing::internal::GetCapturedStdout();
    logged_ = ::testing::internal::GetCapturedStderr();
    return status;
  }

  unit_testing::TemporaryDirectory directory_;
  CppTools::AutoCli::Dispatcher dispatcher_;
  std::string logged_;
};

TEST_F(AnswerRequestTest, StopInAnyCaseIsAStopRequestWithoutAStatus) {
  EXPECT_EQ(Answer("stop"), std::nullopt);
  EXPECT_EQ(Answer("STOP"), std::nullopt);
  EXPECT_EQ(Answer("Stopping everything"), std::nullopt);
}

TEST_F(AnswerRequestTest, CommandThatSucceedsIsAnsweredZero) { EXPECT_EQ(Answer("test true"), 0); }

TEST_F(AnswerRequestTest, EmptyLineIsAParseErrorAnsweredOne) {
  EXPECT_EQ(Answer(""), 1);
  EXPECT_THAT(logged_, ::testing::HasSubstr("Executor was unable to parse command: "));
}

TEST_F(AnswerRequestTest, UnknownCommandIsAnExecutionErrorAnsweredOne) {
  EXPECT_EQ(Answer("test missing"), 1);
  EXPECT_THAT(logged_, ::testing::HasSubstr("execution of 'test missing' failed : "));
}

TEST_F(AnswerRequestTest, HelpIsAnsweredZero) { EXPECT_EQ(Answer("test --help"), 0); }

// ---- starting the executor process, without processes

/// The message of the Exception that Reset throws, "" when it returned.
std::string ResetFailure() {
  try {
    QorcliExecutor::Instance().Reset();
    return "";
  } catch (const Exception& error) {
    return error.what();
  }
}

class ExecutorResetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const int running = QorcliExecutor::Instance().Connect(false);
    if (running >= 0) {
      ::close(running);
      GTEST_SKIP() << "an executor answers on this machine's control socket";
    }
  }
  unit_testing::FakeSpawner spawner;
};

TEST_F(ExecutorResetTest, ChildThatReportsReadyIsAStartedExecutor) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ResetFailure(), "");
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(spawner.Calls(), std::vector<std::string>{"child"});
}

TEST_F(ExecutorResetTest, ForkThatFailsIsReportedWithoutSeparator) {
  spawner.runResult.startError = EAGAIN;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ResetFailure(), "Failed to forkResource temporarily unavailable");
  ::testing::internal::GetCapturedStderr();
}

TEST_F(ExecutorResetTest, StatusThatCannotBeCollectedIsReported) {
  spawner.runResult.status = process::ExitStatus::NotCollected(ECHILD);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ResetFailure(), "Failed collecting executor's exit status");
  ::testing::internal::GetCapturedStderr();
}

TEST_F(ExecutorResetTest, ChildThatFailsOrIsKilledIsAFailedStart) {
  for (const process::ExitStatus& status :
       {process::ExitStatus::ExitedWith(255), process::ExitStatus::KilledBy(SIGKILL)}) {
    spawner.runResult.status = status;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ResetFailure(), "Orvane executor failed to start") << status.Text();
    ::testing::internal::GetCapturedStderr();
  }
}

}  // namespace
}  // namespace orvane
