// The daemon command runner: how a command line becomes a process, what the
// process gets, and how the poll turns its end (or its lack of one) into an
// outcome and a message.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DaemonTestSupport.h"
#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "ZelkKernel/ProcessExitWatch.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/plugins/DaemonCommandRunner.h"
#include "orvaner/plugins/DaemonPlugin.h"

namespace orvane::testing {
namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;
using ZelkKernel::ProcessExitWatch;

/// The runner's own pauses, counted: how many polls found the command still
/// running, whatever the machine's speed.
class CountedPauses {
 public:
  CountedPauses()
      : scope_([this](const ProcessExitWatch& exitWatch, std::chrono::microseconds period) {
          ++count_;
          if (period != std::chrono::milliseconds(10)) ++otherPeriods_;
          exitWatch.WaitAtMost(period);
        }) {}

  unsigned Count() const { return count_; }
  /// Pauses asked for with a period other than 10 ms.
  unsigned OtherPeriods() const { return otherPeriods_; }

 private:
  std::atomic<unsigned> count_{0};
  std::atomic<unsigned> otherPeriods_{0};
  unit_testing::ScopedDaemonCommandPause scope_;
};

class DaemonCommandRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override { Log_Exit(); }

  /// Runs @p commandLine and returns the message it failed with, or "" when
  /// it succeeded.
  static std::string Failure(const std::string& commandLine,
                             const DaemonCommandStreams& streams = {}) {
    try {
      RunDaemonCommand("daemon", commandLine, streams);
      return "";
    } catch (const Exception& error) {
      return error.what();
    }
  }

  /// A child of this process that has already ended with @p code but is
  /// not reaped yet.
  static pid_t EndedChild(int code) {
    const pid_t child = fork();
    if (child == 0) _exit(code);
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    return child;
  }

  unit_testing::TemporaryDirectory directory;
};

// ---- outcomes and their messages

TEST_F(DaemonCommandRunnerTest, CommandThatExitsWithZeroSucceeds) {
  DaemonOptionsScope options(true, 5);
  const std::string script = WriteScript(directory, "ok", "exit 0");
  EXPECT_EQ(Failure(script + " start"), "");
}

TEST_F(DaemonCommandRunnerTest, ExitCodeThreeInWaitModeFailsWithItsStatus) {
  DaemonOptionsScope options(true, 5);
  const std::string script = WriteScript(directory, "three", "exit 3");
  EXPECT_EQ(Failure(script + " start"),
            "Execution of command: " + script + " start failed with status: 3");
}

TEST_F(DaemonCommandRunnerTest, CommandKilledBySignalFailsWithTheSignalNumber) {
  DaemonOptionsScope options(true, 5);
  const std::string script = WriteScript(directory, "killed", "kill -9 $$");
  EXPECT_EQ(Failure(script + " start"),
            "Execution of command: " + script + " start failed with signal: 9");
}

TEST_F(DaemonCommandRunnerTest, MissingProgramFailsToStartWithTheSystemError) {
  DaemonOptionsScope options(true, 5);
  const std::string missing = directory / "missing";
  EXPECT_EQ(Failure(missing + " start"),
            "failed to ForkExec '" + missing + " start' : No such file or directory");
}

TEST_F(DaemonCommandRunnerTest, ProgramThatIsNotExecutableFailsToStart) {
  DaemonOptionsScope options(true, 5);
  directory.Write("plain", "#!/bin/sh\nexit 0\n");
  const std::string plain = directory / "plain";
  EXPECT_EQ(Failure(plain + " stop"),
            "failed to ForkExec '" + plain + " stop' : Permission denied");
}

TEST_F(DaemonCommandRunnerTest, CommandLineOfBlanksFailsToStartAndNamesTheLine) {
  DaemonOptionsScope options(true, 5);
  EXPECT_EQ(Failure("   \t "), "failed to ForkExec '   \t ' : No such file or directory");
  EXPECT_EQ(Failure(""), "failed to ForkExec '' : No such file or directory");
}

TEST_F(DaemonCommandRunnerTest, NoWaitCommandThatFailsWithinTenSecondsStillFails) {
  DaemonOptionsScope options(false, 1);
  const std::string script = WriteScript(directory, "late-failure", "sleep 1.2; exit 4");
  // Longer than the wait time-out, which does not apply without wait.
  EXPECT_EQ(Failure(script + " start"),
            "Execution of command: " + script + " start failed with status: 4");
}

TEST_F(DaemonCommandRunnerTest, NoWaitCommandRunningLongerThanTenSecondsCountsAsSuccess) {
  DaemonOptionsScope options(false, 1);
  const std::string script =
      WriteScript(directory, "long", "echo $$ > " + (directory / "pid") + "; exec sleep 60");
  CountedPauses pauses;
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(Failure(script + " start"), "");
  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(10));
  // Given up after exactly a thousand pauses of 10 ms.
  EXPECT_EQ(pauses.Count(), 1000u);
  EXPECT_EQ(pauses.OtherPeriods(), 0u);
  // Left running, not killed.
  ASSERT_TRUE(AwaitFile(directory, "pid"));
  EXPECT_EQ(::kill(std::stoi(directory.Read("pid")), 0), 0);
  KillRecordedProcess(directory, "pid");
}

TEST_F(DaemonCommandRunnerTest, WaitTimeOutReportsTimedOutAndLeavesTheCommandRunning) {
  DaemonOptionsScope options(true, 1);
  const std::string script =
      WriteScript(directory, "slow", "echo $$ > " + (directory / "pid") + "; exec sleep 60");
  CountedPauses pauses;
  const Clock::time_point begin = Clock::now();
  // The only message that quotes the command line.
  EXPECT_EQ(Failure(script + " start"), "Execution of command: '" + script + " start' timed out.");
  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(pauses.Count(), 100u);  // a hundred 10 ms polls
  EXPECT_EQ(pauses.OtherPeriods(), 0u);
  ASSERT_TRUE(AwaitFile(directory, "pid"));
  EXPECT_EQ(::kill(std::stoi(directory.Read("pid")), 0), 0);
  KillRecordedProcess(directory, "pid");
}

// ---- the poll

TEST_F(DaemonCommandRunnerTest, PollCountIsOnePerStartedTenMillisecondsOfTheTimeOut) {
  EXPECT_EQ(DaemonCommandPollCount(true, 1), 100u);
  EXPECT_EQ(DaemonCommandPollCount(true, 40), 4000u);
  EXPECT_EQ(DaemonCommandPollCount(true, 0), 0u);
  // Unsigned 32-bit arithmetic: 4294968 s is 704 ms after the wrap.
  EXPECT_EQ(DaemonCommandPollCount(true, 4294968), 71u);
}

TEST_F(DaemonCommandRunnerTest, WithoutWaitThePollCountIsTenSecondsWhateverTheTimeOut) {
  EXPECT_EQ(DaemonCommandPollCount(false, 0), 1000u);
  EXPECT_EQ(DaemonCommandPollCount(false, 1), 1000u);
  EXPECT_EQ(DaemonCommandPollCount(false, 40), 1000u);
}

TEST_F(DaemonCommandRunnerTest, ZeroTimeOutCountsACommandEndedBeforeTheFirstPeriodAsTimedOut) {
  const pid_t child = EndedChild(0);
  EXPECT_EQ(AwaitDaemonCommand(child, DaemonCommandPollCount(true, 0), true, "quick start"),
            "Execution of command: 'quick start' timed out.");
  EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), -1);  // reaped all the same
}

TEST_F(DaemonCommandRunnerTest, ZeroTimeOutWaitsWithoutLimitForACommandStillRunning) {
  // Taken before the fork, so that the child's sleep lies wholly after it.
  const Clock::time_point begin = Clock::now();
  const pid_t child = fork();
  if (child == 0) {
    usleep(300000);
    _exit(0);
  }
  EXPECT_EQ(AwaitDaemonCommand(child, 0, true, "slow start"), "");
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(250));
}

TEST_F(DaemonCommandRunnerTest, ZeroTimeOutStillReportsAFailureFoundBeforeTheFirstPeriod) {
  const pid_t child = EndedChild(3);
  EXPECT_EQ(AwaitDaemonCommand(child, 0, true, "bad start"),
            "Execution of command: bad start failed with status: 3");
}

TEST_F(DaemonCommandRunnerTest, LastPollTakesACommandThatIsStillRunningAsStartedWithoutWait) {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(AwaitDaemonCommand(child, 5, false, "resident start"), "");
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(45));  // five periods
  EXPECT_EQ(::kill(child, 0), 0);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST_F(DaemonCommandRunnerTest, ProcessThatIsNotAChildIsAnUnknownError) {
  EXPECT_EQ(AwaitDaemonCommand(1, 100, true, "stranger start"),
            "Execution of command: stranger start failed <unknown_error>");
}

TEST_F(DaemonCommandRunnerTest, CommandThatEndsDuringAPauseCutsThePauseShort) {
  // The child ends when the first pause has begun, and the pause is a whole
  // minute: only the child's end can cut it short.
  constexpr std::chrono::minutes kLongPeriod{1};
  int release[2];
  ASSERT_EQ(::pipe2(release, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    ::close(release[1]);
    char byte;
    [[maybe_unused]] const ssize_t readBytes = ::read(release[0], &byte, 1);
    _exit(0);
  }
  ::close(release[0]);
  std::vector<Clock::duration> pauseLengths;
  const unit_testing::ScopedDaemonCommandPause longPauses(
      [&](const ProcessExitWatch& exitWatch, std::chrono::microseconds) {
        if (pauseLengths.empty()) ::close(release[1]);  // the child's read ends
        const Clock::time_point begin = Clock::now();
        exitWatch.WaitAtMost(kLongPeriod);
        pauseLengths.push_back(Clock::now() - begin);
      });
  EXPECT_EQ(AwaitDaemonCommand(child, 3, true, "quick start"), "");
  if (pauseLengths.empty()) ::close(release[1]);
  ASSERT_EQ(pauseLengths.size(), 1u);  // the next poll found the child ended
  EXPECT_LT(pauseLengths.front(), kLongPeriod);
}

TEST_F(DaemonCommandRunnerTest, CommandsOfSeveralThreadsRunAtTheSameTime) {
  // Each command leaves its mark and waits for the other three: they all
  // find four marks only when all four run at once. The wait gives up after
  // ten seconds, so that commands run one after the other fail, not hang.
  DaemonOptionsScope options(true, 60);
  const std::string script =
      WriteScript(directory, "meet",
                  "cd " + directory.Path().string() +
                      " && touch arrived.$1 && i=0 && "
                      "while set -- arrived.*; [ $# -lt 4 ]; do "
                      "[ $i -lt 200 ] || exit 1; sleep 0.05; i=$((i+1)); done");
  std::vector<std::thread> threads;
  std::vector<std::string> failures(4);
  for (std::size_t index = 0; index < failures.size(); ++index) {
    threads.emplace_back(
        [&, index] { failures[index] = Failure(script + " " + std::to_string(index)); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
}

// ---- what the new process gets

TEST_F(DaemonCommandRunnerTest, CommandRunsInRootWithNullStreamsAndTheCallersIds) {
  DaemonOptionsScope options(true, 5);
  const std::string out = directory / "seen";
  const std::string script =
      WriteScript(directory, "inspect",
                  // Read into variables first: a redirection would change the shell's
                  // own descriptors while they are read.
                  "in=$(readlink /proc/$$/fd/0); out=$(readlink /proc/$$/fd/1); "
                  "printf '%s\\n' \"$(pwd)\" \"$in\" \"$out\" $(id -u) $(id -g) > " +
                      out);
  ASSERT_EQ(Failure(script + " start"), "");
  EXPECT_EQ(directory.Read("seen"), "/\n/dev/null\n/dev/null\n" + std::to_string(getuid()) + "\n" +
                                        std::to_string(getgid()) + "\n");
}

TEST_F(DaemonCommandRunnerTest, StandardErrorGoesToTheLogDevice) {
  DaemonOptionsScope options(true, 5);
  directory.Write("log", "");
  const std::string script = WriteScript(directory, "complain", "echo trouble >&2");
  ASSERT_EQ(Failure(script + " start", {.errors = (directory / "log").c_str()}), "");
  EXPECT_EQ(directory.Read("log"), "trouble\n");
}

TEST_F(DaemonCommandRunnerTest, LogDeviceThatCannotBeOpenedLeavesErrorsOnStandardInput) {
  DaemonOptionsScope options(true, 5);
  const std::string missingLog = directory / "no/log";
  const std::string script =
      WriteScript(directory, "errors",
                  "errors=$(readlink /proc/$$/fd/2); echo \"$errors\" > " + (directory / "seen"));
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(Failure(script + " start", {.errors = missingLog.c_str()}), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");  // silently
  EXPECT_EQ(directory.Read("seen"), "/dev/null\n");
}

TEST_F(DaemonCommandRunnerTest, NullDeviceThatCannotBeOpenedIsReplacedByTheRootDirectory) {
  DaemonOptionsScope options(true, 5);
  const std::string missingNull = directory / "no/null";
  const std::string missingLog = directory / "no/log";
  const std::string script = WriteScript(
      directory, "streams",
      "in=$(readlink /proc/$$/fd/0); out=$(readlink /proc/$$/fd/1); "
      "errors=$(readlink /proc/$$/fd/2); printf '%s\\n' \"$in\" \"$out\" \"$errors\" > " +
          (directory / "seen"));
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(
      Failure(script + " start", {.input = missingNull.c_str(), .errors = missingLog.c_str()}), "");
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("opening /dev/null failed"));
  EXPECT_EQ(directory.Read("seen"), "/\n/\n/\n");
}

TEST_F(DaemonCommandRunnerTest, EnvironmentComesFromTheRunOptions) {
  DaemonOptionsScope scope(true, 5);
  char mark[] = "ORVANE_DAEMON_MARK=from-options";
  char* environment[] = {mark, nullptr};
  RunOptions::Instance().environment = environment;
  ::setenv("ORVANE_DAEMON_LEAK", "from-test", 1);
  const std::string script = WriteScript(
      directory, "environment",
      "echo \"$ORVANE_DAEMON_MARK ${ORVANE_DAEMON_LEAK-unset}\" > " + (directory / "seen"));
  ASSERT_EQ(Failure(script + " start"), "");
  ::unsetenv("ORVANE_DAEMON_LEAK");
  EXPECT_EQ(directory.Read("seen"), "from-options unset\n");
}

TEST_F(DaemonCommandRunnerTest, SeveralBlanksBetweenWordsYieldNoEmptyArguments) {
  DaemonOptionsScope options(true, 5);
  const std::string script = WriteScript(directory, "arguments",
                                         "echo \"$#\" > " + (directory / "seen") +
                                             "; printf '[%s]' \"$@\" >> " + (directory / "seen"));
  ASSERT_EQ(Failure("  " + script + "   start \t  now  "), "");
  EXPECT_EQ(directory.Read("seen"), "2\n[start][now]");
}

TEST_F(DaemonCommandRunnerTest, CallersOtherDescriptorsAreNotInherited) {
  DaemonOptionsScope options(true, 5);
  // A descriptor without close-on-exec, below the ones the shell uses for
  // itself.
  const int inherited = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(inherited, 3);
  ASSERT_LT(inherited, 10);
  const std::string script =
      WriteScript(directory, "descriptors",
                  "for fd in 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > " +
                      (directory / "seen") + "; exit 0");
  ASSERT_EQ(Failure(script + " start"), "");
  ::close(inherited);
  EXPECT_EQ(directory.Read("seen"), "");
}

TEST_F(DaemonCommandRunnerTest, RootDirectoryOnDescriptorZeroIsABrokenInvariant) {
  DaemonOptionsScope options(true, 5);
  const std::string script = WriteScript(directory, "never", "exit 0");
  EXPECT_DEATH(
      {
        ::close(0);
        RunDaemonCommand("daemon", script + " start");
      },
      "VERIFY apps/orvane/orvaner/DaemonPlugin:86");
}

// ---- outcomes without processes

TEST_F(DaemonCommandRunnerTest, CommandIsStartedInTheRootDirectoryAndPolledUntilItEnds) {
  DaemonOptionsScope options(true, 5);
  unit_testing::FakeSpawner spawner;
  spawner.polls = {std::nullopt, std::nullopt, process::ExitStatus::ExitedWith(0)};
  CountedPauses pauses;
  EXPECT_EQ(Failure("/etc/init.d/ntpd   start"), "");
  const std::vector<std::string> calls = spawner.Calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_THAT(calls[0], ::testing::MatchesRegex("start in [0-9]+ /etc/init.d/ntpd start"));
  const std::string poll = "poll " + std::to_string(unit_testing::FakeSpawner::kFakePid);
  EXPECT_EQ(calls[1], poll);
  EXPECT_EQ(calls[2], poll);
  EXPECT_EQ(calls[3], poll);
  EXPECT_EQ(pauses.Count(), 2u);
}

TEST_F(DaemonCommandRunnerTest, ScriptThatFailsIsReportedWithItsStatusWithoutAProcess) {
  DaemonOptionsScope options(true, 5);
  unit_testing::FakeSpawner spawner;
  spawner.polls = {process::ExitStatus::ExitedWith(6)};
  EXPECT_EQ(Failure("/etc/init.d/ntpd start"),
            "Execution of command: /etc/init.d/ntpd start failed with status: 6");
}

TEST_F(DaemonCommandRunnerTest, ScriptKilledBySignalIsReportedWithoutAProcess) {
  DaemonOptionsScope options(false, 5);
  unit_testing::FakeSpawner spawner;
  spawner.polls = {std::nullopt, process::ExitStatus::KilledBy(SIGTERM)};
  unit_testing::ScopedDaemonCommandPause noPause(
      [](const ProcessExitWatch&, std::chrono::microseconds) {});
  EXPECT_EQ(Failure("/etc/init.d/ntpd stop"),
            "Execution of command: /etc/init.d/ntpd stop failed with signal: 15");
}

TEST_F(DaemonCommandRunnerTest, ScriptStatusThatCannotBeCollectedIsAnUnknownErrorWithoutAProcess) {
  DaemonOptionsScope options(true, 5);
  unit_testing::FakeSpawner spawner;
  spawner.polls = {process::ExitStatus::NotCollected(ECHILD)};
  EXPECT_EQ(Failure("/etc/init.d/ntpd start"),
            "Execution of command: /etc/init.d/ntpd start failed <unknown_error>");
}

TEST_F(DaemonCommandRunnerTest, ScriptStillRunningAfterTheTimeOutTimesOutWithoutAProcess) {
  DaemonOptionsScope options(true, 2);
  unit_testing::FakeSpawner spawner;  // every poll: still running
  std::atomic<unsigned> pauses{0};
  unit_testing::ScopedDaemonCommandPause counted(
      [&pauses](const ProcessExitWatch&, std::chrono::microseconds) { ++pauses; });
  EXPECT_EQ(Failure("/etc/init.d/slow start"),
            "Execution of command: '/etc/init.d/slow start' timed out.");
  EXPECT_EQ(pauses.load(), 200u);
  EXPECT_EQ(spawner.Calls().size(), 201u);  // the start and one poll per period
}

TEST_F(DaemonCommandRunnerTest, ScriptStillRunningWithoutWaitIsTakenAsStartedWithoutAProcess) {
  DaemonOptionsScope options(false, 2);
  unit_testing::FakeSpawner spawner;
  std::atomic<unsigned> pauses{0};
  unit_testing::ScopedDaemonCommandPause counted(
      [&pauses](const ProcessExitWatch&, std::chrono::microseconds) { ++pauses; });
  EXPECT_EQ(Failure("/etc/init.d/slow start"), "");
  EXPECT_EQ(pauses.load(), 1000u);
}

TEST_F(DaemonCommandRunnerTest, ScriptThatCannotBeStartedNamesTheLineAndTheErrorWithoutAProcess) {
  DaemonOptionsScope options(true, 5);
  unit_testing::FakeSpawner spawner;
  spawner.startFailure = process::StartStep::Spawn;
  spawner.startError = ENOEXEC;
  EXPECT_EQ(Failure("/etc/init.d/broken start"),
            "failed to ForkExec '/etc/init.d/broken start' : Exec format error");
  EXPECT_EQ(spawner.Calls().size(), 1u) << "nothing to poll";
}

}  // namespace
}  // namespace orvane::testing
