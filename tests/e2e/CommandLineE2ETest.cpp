// The installed orvane's command line, run in a sandboxed copy of the host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <regex>
#include <string>

#include "HostPaths.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::IsEmpty;

/// One line of orvane's standard-output log: UTC time to the millisecond,
/// the identifier, the message.
std::string StdoutLogLine(const std::string& message) {
  return R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z orvane: )" + message + "\n";
}

bool MatchesLog(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

bool HasSyslogRecord(const std::vector<SyslogRecord>& records, int severity,
                     const std::string& message) {
  for (const SyslogRecord& record : records) {
    if (record.ident == "orvane" && record.severity == severity && record.message == message) {
      return true;
    }
  }
  return false;
}

TEST(CommandLineE2E, HelpPrintsTheUsageTextExactlyAndExitsZero) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  for (const char* help : {"--help", "-h"}) {
    RunResult result = sandbox.Run({kOrvane, help});
    EXPECT_EQ(result.exitStatus, 0) << help;
    EXPECT_EQ(result.out, ExpectedFile("usage.txt")) << help;
    EXPECT_EQ(result.err, "") << help;
  }
}

TEST(CommandLineE2E, HelpAfterOtherOptionsRunsNothingAndExitsZero) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result =
      sandbox.Run({kOrvane, "--init", "--parallel", "--daemon", "--method=restart", "--help"});
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, ExpectedFile("usage.txt"));
  EXPECT_EQ(result.err, "");
  // Nothing ran: no log line, no kernel-log line, no combination check.
  EXPECT_THAT(sandbox.Syslog(), IsEmpty());
  EXPECT_EQ(sandbox.Kmsg(), "");
}

TEST(CommandLineE2E, UnknownOptionPrintsGetoptsDiagnosticThenTheHint) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kOrvane, "--bogus"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err,
            "/usr/bin/orvane: unrecognized option '--bogus'\n"
            "usage: /usr/bin/orvane --help for usage information\n");
  EXPECT_EQ(result.out, "");
}

TEST(CommandLineE2E, MissingArgumentPrintsGetoptsDiagnosticThenTheHint) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kOrvane, "--init", "--method"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err,
            "/usr/bin/orvane: option '--method' requires an argument\n"
            "usage: /usr/bin/orvane --help for usage information\n");
}

TEST(CommandLineE2E, HintNamesTheProgramAsItWasInvoked) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({"/usr/bin/../bin/orvane", "-x"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err,
            "/usr/bin/../bin/orvane: invalid option -- 'x'\n"
            "usage: /usr/bin/../bin/orvane --help for usage information\n");
}

TEST(CommandLineE2E, DaemonWithRestartIsAnInvalidCombination) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kOrvane, "--daemon", "--method=restart"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(
      MatchesLog(result.out, StdoutLogLine("Invalid combination of options passed\\. Exiting")))
      << result.out;
  EXPECT_TRUE(
      HasSyslogRecord(sandbox.Syslog(), LOG_ERR, "Invalid combination of options passed. Exiting"));
}

TEST(CommandLineE2E, DaemonWithInitIsAnInvalidCombination) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kOrvane, "--daemon", "--init", "--method=start"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_TRUE(
      MatchesLog(result.out, StdoutLogLine("Invalid combination of options passed\\. Exiting")))
      << result.out;
}

TEST(CommandLineE2E, InvokeWithoutPluginsLogsTheReasonThenPrintsTheUsage) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunResult result = sandbox.Run({kOrvane, "--invoke", "--method=start"});
  EXPECT_EQ(result.exitStatus, 1);
  const std::string reasonLine = "invoke requires a method and plugin specified";
  const std::string usage = ExpectedFile("usage.txt");
  ASSERT_GT(result.out.size(), usage.size());
  EXPECT_EQ(result.out.substr(result.out.size() - usage.size()), usage);
  EXPECT_TRUE(
      MatchesLog(result.out.substr(0, result.out.size() - usage.size()), StdoutLogLine(reasonLine)))
      << result.out;
  EXPECT_TRUE(HasSyslogRecord(sandbox.Syslog(), LOG_ERR, reasonLine));
}

TEST(CommandLineE2E, AcceptedOptionsEndWithZero) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  // Every mode but daemon mode starts and stops the executor process, and
  // says only that on standard output; init mode also finds no syslog
  // daemon to reload on this host (whose syslog configuration, if any, is
  // kept out so that no upgrade script is looked for).
  sandbox.Remove("/etc/syslog.conf");
  const std::string launchLines =
      StdoutLogLine("Launching Executor") + StdoutLogLine("Setting up Executor - Reset Requested");
  const std::string stopLine = StdoutLogLine("Executor has been Successfully Stopped");
  const std::string noSyslogDaemonLine = StdoutLogLine("unable to open zelksyslogd pid file.");
  for (std::vector<std::string> argv : {
           std::vector<std::string>{kOrvane},
           {kOrvane, "--init", "--parallel", "--plugin-flags=a,b"},
           {kOrvane, "--invoke", "--method=start", "--plugin=foo.debug", "--randomize=abc"},
       }) {
    // The executor leaves its socket file behind; a second one needs it gone.
    sandbox.Remove(kExecutorSocket);
    RunResult result = sandbox.Run(argv);
    const bool init = argv.size() > 1 && argv[1] == "--init";
    const std::string expectedLines = launchLines + (init ? noSyslogDaemonLine : "") + stopLine;
    EXPECT_EQ(result.exitStatus, 0) << argv.back();
    EXPECT_TRUE(MatchesLog(result.out, expectedLines)) << argv.back() << ":\n" << result.out;
    EXPECT_EQ(result.err, "") << argv.back();
  }
  // Daemon mode asks the service tool for the init.d scripts; one that
  // lists none leaves nothing to start or stop.
  sandbox.WriteFile("/bin/chkconfig", "#!/bin/sh\nexit 0\n", 0755);
  for (std::vector<std::string> argv : {
           std::vector<std::string>{kOrvane, "--daemon=WAIT", "--method=start"},
           {kOrvane, "--daemon=wait", "--method=stop", "--daemon-wait-timeout=abc"},
       }) {
    RunResult result = sandbox.Run(argv);
    EXPECT_EQ(result.exitStatus, 0) << argv.back();
    EXPECT_EQ(result.out, "") << argv.back();
    EXPECT_EQ(result.err, "") << argv.back();
  }
  EXPECT_EQ(sandbox.Kmsg(), "");
}

TEST(CommandLineE2E, LoggingThatCannotBeSetUpEndsTheRunWithOne) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox sandbox;
  RunSettings settings;
  settings.closeStdout = true;
  RunResult result = sandbox.Run({kOrvane, "--init"}, settings);
  EXPECT_EQ(result.exitStatus, 1);
  // Syslog was set up before the standard-output channel failed, so the
  // reason reaches it.
  EXPECT_TRUE(HasSyslogRecord(
      sandbox.Syslog(), LOG_WARNING,
      "Failed to initialize orvane: Failed creating standard out logging interface.\n"));
}

}  // namespace
}  // namespace orvane::testing
