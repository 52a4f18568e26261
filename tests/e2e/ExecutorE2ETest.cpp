// The executor process, its control-socket protocol and its client, with
// real processes on the sandboxed host's fixed paths, driven by the
// executorprobe program and by the installed orvane.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <iostream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr const char* kProbe = "/usr/local/bin/executorprobe";
constexpr const char* kRecorder = "/usr/local/bin/recordargs";
constexpr const char* kRecorded = "/tmp/recorded-args";
constexpr const char* kDefinitions = "/usr/lib/talvek/qorcli/test.json";
constexpr uid_t kNobody = 65534;

// A command whose program appends its one argument as a line to kRecorded,
// one that fails and one that succeeds.
constexpr const char* kDefinitionText = R"({
  "commands": [
    {"path": ["test", "record"], "parameters": [{"name": "text"}],
     "exec": ["/usr/local/bin/recordargs", "{text}"]},
    {"path": ["test", "fail"], "exec": ["/bin/false"]},
    {"path": ["test", "true"], "exec": ["/bin/true"]}
  ]
})";
constexpr const char* kRecorderScript = "#!/bin/sh\nprintf '%s\\n' \"$*\" >> /tmp/recorded-args\n";

const std::string kRecordPrefix = "test record --text ";

/// A sandbox with the probe, the recorder and the test command definitions.
class ExecutorE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    sandbox_->CopyIn(ORVANE_EXECUTORPROBE, kProbe);
    sandbox_->WriteFile(kRecorder, kRecorderScript, 0755);
    sandbox_->WriteFile(kDefinitions, kDefinitionText);
  }

  /// Runs the probe with these steps; probeOut_ keeps its standard output.
  std::vector<std::string> Probe(std::vector<std::string> steps) {
    steps.insert(steps.begin(), kProbe);
    RunResult result = sandbox_->Run(steps);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_FALSE(result.timedOut);
    probeOut_ = result.out;
    std::vector<std::string> results;
    for (const std::string& line : Lines(result.out)) {
      if (line.starts_with("= ")) results.push_back(line.substr(2));
    }
    return results;
  }

  /// The executor process's log messages (its standard output), in order.
  std::vector<std::string> ExecutorLog() {
    return sandbox_->Exists(kExecutorLog) ? LogMessages(sandbox_->ReadFile(kExecutorLog))
                                          : std::vector<std::string>{};
  }

  /// What the probe itself (the client) logged.
  std::vector<std::string> ClientLog() const { return LogMessages(probeOut_); }

  /// The arguments the recorder program was run with, one run per line.
  std::vector<std::string> Recorded() {
    return sandbox_->Exists(kRecorded) ? Lines(sandbox_->ReadFile(kRecorded))
                                       : std::vector<std::string>{};
  }

  /// Whether orvane's ident sent @p message at @p severity; a trailing line
  /// end is not compared.
  bool SyslogHas(int severity, std::string message) {
    if (message.ends_with('\n')) message.pop_back();
    for (const SyslogRecord& record : sandbox_->Syslog()) {
      std::string text = record.message;
      if (text.ends_with('\n')) text.pop_back();
      if (record.ident == "orvane" && record.severity == severity && text == message) {
        return true;
      }
    }
    return false;
  }

  std::unique_ptr<Sandbox> sandbox_;
  std::string probeOut_;
};

// ---- the protocol

TEST_F(ExecutorE2E, CommandRunsInTheExecutorWhichStopsOnRequest) {
  EXPECT_THAT(Probe({"reset", "run", "test record --text hello", "stop", "wait-gone"}),
              ElementsAre("reset: ok", "run: ok", "stop: ok", StartsWith("wait-gone: gone")));
  EXPECT_THAT(Recorded(), ElementsAre("hello"));
  EXPECT_THAT(ClientLog(), ElementsAre("Setting up Executor - Reset Requested",
                                       "Executor has been Successfully Stopped"));
  // The executor's main thread logs "polling" after starting the event loop,
  // which may already be serving; so the two lines come in either order.
  EXPECT_THAT(ExecutorLog(), UnorderedElementsAre("Executor Reset - polling for commands",
                                                  "Orvane executor signalled to stop"));
  // The socket file is left behind.
  EXPECT_TRUE(sandbox_->Exists(kExecutorSocket));
}

TEST_F(ExecutorE2E, ResetWithARunningExecutorStartsNoSecondOne) {
  EXPECT_THAT(Probe({"reset", "reset", "run", "test true"}),
              ElementsAre("reset: ok", "reset: ok", "run: ok"));
  EXPECT_THAT(ClientLog(), ElementsAre("Setting up Executor - Reset Requested"));
}

TEST_F(ExecutorE2E, StopRequestInAnyCaseStopsTheExecutorWithoutAReply) {
  for (const char* request : {"stop", "STOP", "Stop", "Stopper", "sToP now"}) {
    sandbox_->Remove(kExecutorSocket);  // left by the previous executor
    EXPECT_THAT(Probe({"reset", "send", request, "wait-gone"}),
                ElementsAre("reset: ok", "send: eof", StartsWith("wait-gone: gone")))
        << request;
  }
  EXPECT_THAT(ExecutorLog(), Contains("Orvane executor signalled to stop"));
}

TEST_F(ExecutorE2E, MessagesThatOnlyResembleStopAreCommands) {
  EXPECT_THAT(
      Probe({"reset", "send", "sto", "send", " stop", "send", "xstop", "run", "test true"}),
      ElementsAre("reset: ok", "send: status 1", "send: status 1", "send: status 1", "run: ok"));
}

TEST_F(ExecutorE2E, LongCommandLineIsCutAtItsFirst1023Bytes) {
  const std::string line = kRecordPrefix + std::string(2000 - kRecordPrefix.size(), 'a');
  ASSERT_EQ(line.size(), 2000u);
  EXPECT_THAT(Probe({"reset", "run", line, "send", line}),
              ElementsAre("reset: ok", "run: ok", "send: status 0, rest unread"));
  const std::string cut(1023 - kRecordPrefix.size(), 'a');
  EXPECT_THAT(Recorded(), ElementsAre(cut, cut));
}

TEST_F(ExecutorE2E, EmptyMessageIsAnEmptyCommandLine) {
  EXPECT_THAT(Probe({"reset", "empty", "run", "test record --text after"}),
              ElementsAre("reset: ok", "empty: status 1", "run: ok"));
  EXPECT_THAT(ExecutorLog(), Contains(StartsWith("Executor was unable to parse command: ")));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
}

// The client's empty line used to be no bytes at all, with the connection
// left open: the executor waited in its receive and the client for its
// status, for ever. The client now ends what it sends.
TEST_F(ExecutorE2E, EmptyCommandLineFromTheClientIsAnsweredAndTheExecutorServesOn) {
  EXPECT_THAT(Probe({"reset", "run", "", "run", kRecordPrefix + "after", "stop"}),
              ElementsAre("reset: ok", "run: threw Executor failed executing qorcli command: ",
                          "run: ok", "stop: ok"));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
}

// A local client that connects and says nothing is given up on after a few
// seconds: its receive fails (logged, no reply) and the next client is served.
TEST_F(ExecutorE2E, SilentClientIsDroppedAndTheNextCommandIsServed) {
  EXPECT_THAT(Probe({"reset", "silent", "run", kRecordPrefix + "after", "silent-outcome", "stop"}),
              ElementsAre("reset: ok", "silent: connected", "run: ok",
                          "silent-outcome: closed without a reply", "stop: ok"));
  EXPECT_THAT(Recorded(), ElementsAre("after"));
  EXPECT_THAT(ExecutorLog(),
              Contains("Failed to read message from socket - Resource temporarily unavailable"));
}

TEST_F(ExecutorE2E, TextAfterANulByteIsIgnored) {
  sandbox_->WriteFile("/tmp/with-nul", std::string("test record --text kept\0--text lost", 35));
  EXPECT_THAT(Probe({"reset", "send-file", "/tmp/with-nul"}),
              ElementsAre("reset: ok", "send: status 0"));
  EXPECT_THAT(Recorded(), ElementsAre("kept"));
}

TEST_F(ExecutorE2E, ClientThatLeavesBeforeTheReplyDoesNotStopTheExecutor) {
  EXPECT_THAT(Probe({"reset", "send-and-close", "test record --text first", "run",
                     "test record --text second"}),
              ElementsAre("reset: ok", "send-and-close: sent", "run: ok"));
  EXPECT_THAT(Recorded(), ElementsAre("first", "second"));
}

// The executor ignores SIGPIPE (its client set that before forking it);
// every command's program starts with it, and every other signal, at the
// default action, the first command and the ones after it alike.
TEST_F(ExecutorE2E, CommandProgramsStartWithTheSignalsTheExecutorIgnoresAtTheirDefault) {
  sandbox_->WriteFile("/usr/local/bin/ignoredsignals",
                      "#!/bin/sh\ngrep '^SigIgn' /proc/$$/status >> /tmp/ignored-signals\n", 0755);
  sandbox_->WriteFile("/usr/lib/talvek/qorcli/signals.json",
                      R"({"commands": [{"path": ["test", "signals"],)"
                      R"( "exec": ["/usr/local/bin/ignoredsignals"]}]})");
  EXPECT_THAT(Probe({"reset", "run", "test signals", "run", "test signals"}),
              ElementsAre("reset: ok", "run: ok", "run: ok"));
  const std::vector<std::string> lines = Lines(sandbox_->ReadFile("/tmp/ignored-signals"));
  ASSERT_EQ(lines.size(), 2u);
  for (const std::string& line : lines) {
    // The standard signals 1 to 31; the C library decides 32 and 33.
    EXPECT_EQ(std::stoull(line.substr(line.find('\t') + 1), nullptr, 16) & 0x7fffffffULL, 0u)
        << line;
  }
}

TEST_F(ExecutorE2E, HelpRequestRepliesZeroAndDispatchesNothing) {
  EXPECT_THAT(Probe({"reset", "run", "test record --help", "send", "--help"}),
              ElementsAre("reset: ok", "run: ok", "send: status 0"));
  EXPECT_THAT(Recorded(), IsEmpty());
  // The help went to the executor's standard output, its log file.
  EXPECT_THAT(sandbox_->ReadFile(kExecutorLog), AllOf(HasSubstr("--text"), HasSubstr("record")));
}

TEST_F(ExecutorE2E, ParseErrorIsLoggedAndAnsweredWithOne) {
  EXPECT_THAT(Probe({"reset", "run", "test record --text 'unterminated"}),
              ElementsAre("reset: ok",
                          "run: threw Executor failed executing qorcli command: "
                          "test record --text 'unterminated"));
  EXPECT_THAT(ExecutorLog(), Contains(StartsWith("Executor was unable to parse command: ")));
  EXPECT_THAT(Recorded(), IsEmpty());
}

TEST_F(ExecutorE2E, ExecutionErrorsAreLoggedWithTheCommandAndAnsweredWithOne) {
  EXPECT_THAT(
      Probe({"reset", "run", "test fail", "run", "no such"}),
      ElementsAre("reset: ok", "run: threw Executor failed executing qorcli command: test fail",
                  "run: threw Executor failed executing qorcli command: no such"));
  EXPECT_THAT(ExecutorLog(),
              AllOf(Contains("execution of 'test fail' failed : command 'test fail' failed with "
                             "status 1"),
                    Contains(StartsWith("execution of 'no such' failed : unknown command"))));
  EXPECT_TRUE(SyslogHas(LOG_ERR,
                        "execution of 'test fail' failed : command 'test fail' failed with "
                        "status 1\n"));
}

// ---- the client

TEST_F(ExecutorE2E, StopWithoutAnExecutorSaysItIsGoneAndDoesNotThrow) {
  EXPECT_THAT(Probe({"stop"}), ElementsAre("stop: ok"));
  EXPECT_THAT(ClientLog(), ElementsAre("Executor already gone."));
}

TEST_F(ExecutorE2E, StaleSocketFileFailsTheStartWithTheBindErrorLoggedByTheChild) {
  EXPECT_THAT(Probe({"stale-socket", "reset"}),
              ElementsAre("stale-socket: ok", "reset: threw Orvane executor failed to start"));
  const std::string bindError =
      "Unable to start executor: Failed to bind to executor control socket: Address already in "
      "use";
  EXPECT_THAT(ExecutorLog(), ElementsAre(bindError));
  EXPECT_TRUE(SyslogHas(LOG_ERR, bindError + "\n"));
}

TEST_F(ExecutorE2E, ExecutorStoppedEarlierCannotBeStartedAgainWhileItsSocketFileRemains) {
  EXPECT_THAT(Probe({"reset", "stop", "wait-gone", "reset"}),
              ElementsAre("reset: ok", "stop: ok", StartsWith("wait-gone: gone"),
                          "reset: threw Orvane executor failed to start"));
}

TEST_F(ExecutorE2E, RunCommandStartsAnExecutorWhenNoneRuns) {
  EXPECT_THAT(Probe({"run", "test record --text started"}), ElementsAre("run: ok"));
  EXPECT_THAT(ClientLog(), ElementsAre(StartsWith("Failed connecting to executor "),
                                       "Setting up Executor - Reset Requested"));
  EXPECT_THAT(Recorded(), ElementsAre("started"));
}

TEST_F(ExecutorE2E, RunCommandGivesUpAfterTenConnectsAndTenResets) {
  EXPECT_THAT(Probe({"stale-socket", "run", "test true"}),
              ElementsAre("stale-socket: ok",
                          "run: threw Could not connect to Executor:Connection refused"));
  std::vector<std::string> expected;
  for (int attempt = 0; attempt < 10; ++attempt) {
    expected.push_back("Failed connecting to executor Connection refused");
    expected.push_back("Setting up Executor - Reset Requested");
    expected.push_back("Resetting Executor failed, retrying: Orvane executor failed to start");
  }
  EXPECT_EQ(ClientLog(), expected);
}

TEST_F(ExecutorE2E, ExecutorThatClosesWithoutAStatusFailsTheCommandWithoutRetry) {
  EXPECT_THAT(Probe({"fake-executor", "test true"}),
              ElementsAre("run: threw Failed to recieve command status from Executor: "
                          "Connection reset by peer",
                          "fake-executor: accepted 1"));
  EXPECT_THAT(ClientLog(), IsEmpty());  // no reset was tried
}

// ---- the dispatcher

TEST_F(ExecutorE2E, DispatcherWithoutItsDirectoriesLogsEachOnceInTableOrder) {
  sandbox_->Remove("/usr/lib/talvek/qorcli");
  EXPECT_THAT(Probe({"dispatcher"}), ElementsAre("dispatcher: same instance"));
  std::vector<std::string> expected;
  for (const char* directory : {"/usr/lib/talvek/qorcli", "/usr/lib/talvek/qorcli/int",
                                "/usr/lib/talvek/qorcli/int/ext", "/usr/lib/talvek/qorcli/ext"}) {
    expected.push_back(
        std::string("unable to add external directory to the qorcli dispatcher: cannot read "
                    "command definition directory '") +
        directory + "': No such file or directory");
  }
  EXPECT_EQ(ClientLog(), expected);
}

TEST_F(ExecutorE2E, DispatcherReadsCommandsFromEveryDirectoryLaterOnesOverriding) {
  sandbox_->WriteFile("/usr/lib/talvek/qorcli/ext/override.json",
                      R"({"commands": [{"path": ["test", "fail"], "exec": ["/bin/true"]},
                                       {"path": ["ext", "only"], "exec": ["/bin/true"]}]})");
  EXPECT_THAT(Probe({"reset", "run", "test fail", "run", "ext only"}),
              ElementsAre("reset: ok", "run: ok", "run: ok"));
}

// ---- who may use the socket

TEST_F(ExecutorE2E, SocketFileIsReadableAndWritableByItsOwnerOnly) {
  EXPECT_THAT(Probe({"reset", "socket-mode"}), ElementsAre("reset: ok", "socket-mode: 140600"));
}

TEST_F(ExecutorE2E, OtherUserCannotConnect) {
  EXPECT_THAT(Probe({"reset", "send-as", std::to_string(kNobody), "test record --text intruder"}),
              ElementsAre("reset: ok", "send-as: connect failed Permission denied"));
  EXPECT_THAT(Recorded(), IsEmpty());
}

TEST_F(ExecutorE2E, OtherUserIsAnsweredOneEvenWhenTheSocketIsOpenedUp) {
  const std::string nobody = std::to_string(kNobody);
  EXPECT_THAT(
      Probe({"reset", "chmod-socket", "666", "send-as", nobody, "test record --text intruder",
             "send-as", nobody, "stop", "run", "test record --text owner"}),
      ElementsAre("reset: ok", "chmod-socket: ok", "send-as: status 1", "send-as: status 1",
                  "run: ok"));
  EXPECT_THAT(Recorded(), ElementsAre("owner"));
  EXPECT_THAT(ExecutorLog(),
              Contains(StartsWith("Executor refused a request from uid 65534 (pid ")));
}

// ---- bad input

TEST_F(ExecutorE2E, LinesOfRandomBytesAreAnsweredAndTheExecutorKeepsServing) {
  std::mt19937 generator(20261121);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> length(1, 1500);
  std::vector<std::string> steps = {"reset"};
  for (int line = 0; line < 40; ++line) {
    std::string bytes;
    const int size = length(generator);
    for (int i = 0; i < size; ++i) bytes += static_cast<char>(byte(generator));
    if (bytes[0] == 's' || bytes[0] == 'S') bytes[0] = 'x';  // never a stop request
    const std::string path = "/tmp/random-" + std::to_string(line);
    sandbox_->WriteFile(path, bytes);
    steps.insert(steps.end(), {"send-file", path});
  }
  steps.insert(steps.end(), {"run", "test record --text still-serving", "stop"});
  std::vector<std::string> results = Probe(steps);
  ASSERT_EQ(results.size(), 43u);
  EXPECT_EQ(results.front(), "reset: ok");
  for (std::size_t i = 1; i <= 40; ++i) {
    EXPECT_THAT(results[i], ::testing::ContainsRegex("^send: status [01](, rest unread)?$")) << i;
  }
  EXPECT_EQ(results[41], "run: ok");
  EXPECT_EQ(results[42], "stop: ok");
  EXPECT_THAT(Recorded(), Contains("still-serving"));
}

TEST_F(ExecutorE2E, HundredThousandByteLinesAreCutAndAnswered) {
  sandbox_->WriteFile("/tmp/long-garbage", std::string(100000, 'x'));
  sandbox_->WriteFile("/tmp/long-command",
                      kRecordPrefix + std::string(100000 - kRecordPrefix.size(), 'b'));
  EXPECT_THAT(Probe({"reset", "send-file", "/tmp/long-garbage", "send-file", "/tmp/long-command",
                     "run", "test true"}),
              ElementsAre("reset: ok", "send: status 1, rest unread", "send: status 0, rest unread",
                          "run: ok"));
  EXPECT_THAT(Recorded(), ElementsAre(std::string(1023 - kRecordPrefix.size(), 'b')));
}

TEST_F(ExecutorE2E, FloodOfSilentConnectionsLeavesTheExecutorServing) {
  EXPECT_THAT(Probe({"reset", "flood", "300", "run", "test record --text after-flood", "stop",
                     "wait-gone"}),
              ElementsAre("reset: ok", "flood: 300 connections", "run: ok", "stop: ok",
                          StartsWith("wait-gone: gone")));
  EXPECT_THAT(Recorded(), ElementsAre("after-flood"));
}

// ---- orvane's run

TEST_F(ExecutorE2E, PlainRunStartsTheExecutorFirstAndStopsItAtTheEnd) {
  RunResult result = sandbox_->Run({kOrvane});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(LogMessages(result.out),
              ElementsAre("Launching Executor", "Setting up Executor - Reset Requested",
                          "Executor has been Successfully Stopped"));
  // The executor's own "polling" line races with the stop request of a run
  // without plugins, and the sandbox ends the executor as soon as orvane
  // exits; the stop it received is what shows that it served the run.
  EXPECT_THAT(ExecutorLog(), Contains("Orvane executor signalled to stop"));
  EXPECT_TRUE(SyslogHas(LOG_INFO, "Launching Executor\n"));
}

TEST_F(ExecutorE2E, RunWhoseExecutorCannotStartEndsWithOne) {
  Probe({"stale-socket"});
  RunResult result = sandbox_->Run({kOrvane, "--init"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_THAT(LogMessages(result.out),
              ElementsAre("Launching Executor", "Setting up Executor - Reset Requested",
                          "Failed to start executor Orvane executor failed to start"));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "Failed to start executor Orvane executor failed to start\n"));
  EXPECT_THAT(ExecutorLog(), ElementsAre(StartsWith("Unable to start executor: Failed to bind")));
}

TEST_F(ExecutorE2E, DaemonModeRunsNoExecutor) {
  RunResult result = sandbox_->Run({kOrvane, "--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_THAT(LogMessages(result.out), IsEmpty());
  EXPECT_FALSE(sandbox_->Exists(kExecutorSocket));
}

}  // namespace
}  // namespace orvane::testing
