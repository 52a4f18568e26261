// Runs of the installed orvane with --init on the sandboxed host, with
// stand-ins for the syslog daemon, the event daemon's init script and the
// syslog configuration upgrade script at their fixed paths: what runs
// before the executor and the plugins, what runs after them, and what is
// logged when a piece is missing or fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"
#include "orvane/FixedPaths.h"

namespace orvane::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

/// Records its arguments, then leaves a process behind that writes the pid
/// file and records every SIGUSR1; returns only once the pid file exists,
/// as the real daemon does once it is up.
constexpr const char* kFakeSyslogDaemon =
    "#!/bin/sh\n"
    "echo \"zelsyslogd $*\" >> /tmp/record\n"
    "/bin/sh -c 'trap \"echo zelsyslogd reloaded >> /tmp/record\" USR1; "
    "echo $$ > /var/run/talvek/zelsyslogd.pid.new; "
    "mv /var/run/talvek/zelsyslogd.pid.new /var/run/talvek/zelsyslogd.pid; "
    "while :; do sleep 0.05; done' &\n"
    "while [ ! -e /var/run/talvek/zelsyslogd.pid ]; do sleep 0.01; done\n";

/// Records its arguments and whether the executor's socket exists yet.
constexpr const char* kFakeEventDaemon =
    "#!/bin/sh\n"
    "if [ -e /var/run/talvek/orvaneExecutor.sock ]; then executor=running; "
    "else executor=absent; fi\n"
    "echo \"wexd $* executor $executor\" >> /tmp/record\n";

constexpr const char* kFakeUpgradeScript =
    "#!/bin/sh\n"
    "echo upgrade-syslog.conf $* >> /tmp/record\n";

constexpr const char* kPlugin = "plugin:::echo plugin >> /tmp/record\n";

/// The failure the child of the run-and-wait helper logs for a program that
/// does not exist.
std::string ExecveFailure(const char* program) {
  return std::string("execve(") + program + ") failure: No such file or directory";
}

class InitModeE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    // Whatever this machine has at these paths stays out of the runs.
    for (const char* path : {paths::kSyslogDaemon, paths::kSyslogUpgradeScript, paths::kSyslogConf,
                             paths::kSyslogDaemonPidFile, paths::kEventDaemonScript}) {
      sandbox_->Remove(path);
    }
    sandbox_->WriteFile(paths::kDebugConfiguration, kPlugin);
  }

  void InstallSyslogDaemon(const char* script = kFakeSyslogDaemon) {
    sandbox_->WriteFile(paths::kSyslogDaemon, script, 0755);
  }
  void InstallEventDaemon(const char* script = kFakeEventDaemon) {
    sandbox_->WriteFile(paths::kEventDaemonScript, script, 0755);
  }
  void InstallUpgradeScript(const char* script = kFakeUpgradeScript) {
    sandbox_->WriteFile(paths::kSyslogUpgradeScript, script, 0755);
  }
  void InstallSyslogConf() { sandbox_->WriteFile(paths::kSyslogConf, "*.* /var/log/messages\n"); }

  /// Runs orvane with @p options; expects it to end by itself.
  RunResult Orvane(std::vector<std::string> options) {
    options.insert(options.begin(), kOrvane);
    return Finish(sandbox_->Run(options));
  }

  /// Runs orvane with @p options, then waits up to five seconds for the
  /// stand-in syslog daemon to record a reload before the sandbox ends it;
  /// the exit status is orvane's.
  RunResult OrvaneThenAwaitReload(const std::vector<std::string>& options) {
    std::string command = kOrvane;
    for (const std::string& option : options) command += " " + option;
    command +=
        "; status=$?; i=0; while ! grep -q reloaded /tmp/record 2>/dev/null && [ $i -lt 100 ]; "
        "do sleep 0.05; i=$((i+1)); done; exit $status";
    return Finish(sandbox_->Run({paths::kShell, "-c", command}));
  }

  RunResult Finish(RunResult result) {
    EXPECT_FALSE(result.timedOut);
    messages_ = LogMessages(result.out);
    return result;
  }

  std::vector<std::string> Recorded() {
    return sandbox_->Exists(kRecord) ? Lines(sandbox_->ReadFile(kRecord))
                                     : std::vector<std::string>{};
  }

  /// The syslog record of orvane's ident with @p message at @p severity;
  /// null when there is none.
  std::unique_ptr<SyslogRecord> SyslogFind(int severity, const std::string& message) {
    for (const SyslogRecord& record : sandbox_->Syslog()) {
      std::string text = record.message;
      if (text.ends_with('\n')) text.pop_back();
      if (record.ident == "orvane" && record.severity == severity && text == message) {
        return std::make_unique<SyslogRecord>(record);
      }
    }
    return nullptr;
  }
  bool SyslogHas(int severity, const std::string& message) {
    return SyslogFind(severity, message) != nullptr;
  }

  /// Where @p message stands among the run's standard-output messages; the
  /// count when it is absent.
  std::size_t MessagePosition(const std::string& message) const {
    return std::find(messages_.begin(), messages_.end(), message) - messages_.begin();
  }

  std::unique_ptr<Sandbox> sandbox_;
  std::vector<std::string> messages_;
};

TEST_F(InitModeE2E, DaemonsStartBeforeTheExecutorAndPluginsAndSyslogReloadsAfterThem) {
  InstallSyslogDaemon();
  InstallEventDaemon();
  InstallUpgradeScript();
  InstallSyslogConf();
  RunResult result = OrvaneThenAwaitReload({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("zelsyslogd -i", "wexd start executor absent", "plugin",
                                      "upgrade-syslog.conf", "zelsyslogd reloaded"));
  EXPECT_THAT(messages_, Contains("Executor has been Successfully Stopped"));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("zelsyslogd"))));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("zelksyslogd"))));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("Failed"))));
}

TEST_F(InitModeE2E, MissingSyslogDaemonLogsTheExecveFailureFromTheChildAndBootGoesOn) {
  InstallEventDaemon();
  InstallUpgradeScript();
  InstallSyslogConf();
  RunResult result = Orvane({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  std::unique_ptr<SyslogRecord> failure = SyslogFind(LOG_ERR, ExecveFailure(paths::kSyslogDaemon));
  ASSERT_NE(failure, nullptr);
  std::unique_ptr<SyslogRecord> launching = SyslogFind(LOG_INFO, "Launching Executor");
  ASSERT_NE(launching, nullptr);
  EXPECT_NE(failure->pid, launching->pid);  // logged by the child, not by orvane itself
  // The child's standard output is /dev/null, so only syslog has the failure.
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("execve"))));
  EXPECT_THAT(Recorded(),
              ElementsAre("wexd start executor absent", "plugin", "upgrade-syslog.conf"));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "unable to open zelksyslogd pid file."));
  EXPECT_LT(MessagePosition("unable to open zelksyslogd pid file."),
            MessagePosition("Executor has been Successfully Stopped"));
  EXPECT_LT(MessagePosition("Executor has been Successfully Stopped"), messages_.size());
}

TEST_F(InitModeE2E, WithoutSyslogConfTheUpgradeIsNotRunButTheReloadIsStillSent) {
  InstallSyslogDaemon();
  InstallEventDaemon();
  InstallUpgradeScript();
  RunResult result = OrvaneThenAwaitReload({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("zelsyslogd -i", "wexd start executor absent", "plugin",
                                      "zelsyslogd reloaded"));
}

TEST_F(InitModeE2E, EveryMissingPieceIsReportedAndEachLaterStepStillRuns) {
  RunResult result = Orvane({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_TRUE(SyslogHas(LOG_ERR, ExecveFailure(paths::kSyslogDaemon)));
  EXPECT_TRUE(SyslogHas(LOG_ERR, ExecveFailure(paths::kEventDaemonScript)));
  EXPECT_THAT(Recorded(), ElementsAre("plugin"));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("failed to call"))));
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "unable to open zelksyslogd pid file."));
  EXPECT_LT(MessagePosition("Launching Executor"),
            MessagePosition("executing start plugin: plugin"));
  EXPECT_LT(MessagePosition("executing start plugin: plugin"),
            MessagePosition("unable to open zelksyslogd pid file."));
  EXPECT_LT(MessagePosition("unable to open zelksyslogd pid file."),
            MessagePosition("Executor has been Successfully Stopped"));
  EXPECT_LT(MessagePosition("Executor has been Successfully Stopped"), messages_.size());
}

TEST_F(InitModeE2E, FailingDaemonsAndUpgradeAndAnUnreadablePidAreSurvived) {
  InstallSyslogDaemon(
      "#!/bin/sh\necho \"zelsyslogd $*\" >> /tmp/record\n"
      "echo not-a-pid > /var/run/talvek/zelsyslogd.pid\nexit 1\n");
  InstallEventDaemon("#!/bin/sh\necho \"wexd $*\" >> /tmp/record\nexit 2\n");
  InstallUpgradeScript("#!/bin/sh\necho upgrade-syslog.conf >> /tmp/record\nexit 1\n");
  InstallSyslogConf();
  RunResult result = Orvane({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(),
              ElementsAre("zelsyslogd -i", "wexd start", "plugin", "upgrade-syslog.conf"));
  EXPECT_TRUE(SyslogHas(LOG_ERR, "unable to read zelsyslogd pid."));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("failed to call"))));
  EXPECT_LT(MessagePosition("unable to read zelsyslogd pid."),
            MessagePosition("Executor has been Successfully Stopped"));
  EXPECT_LT(MessagePosition("Executor has been Successfully Stopped"), messages_.size());
}

TEST_F(InitModeE2E, PidOfAProcessThatIsGoneReportsTheFailedReload) {
  InstallSyslogDaemon(
      "#!/bin/sh\necho 999999 > /var/run/talvek/zelsyslogd.pid\n");  // no such process
  RunResult result = Orvane({"--init"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_TRUE(SyslogHas(LOG_WARNING, "failed to reload zelsyslogd: No such process."));
  EXPECT_THAT(Recorded(), ElementsAre("plugin"));
}

TEST_F(InitModeE2E, WithoutInitNoDaemonStartsAndNothingIsReloaded) {
  InstallSyslogDaemon();
  InstallEventDaemon();
  InstallUpgradeScript();
  InstallSyslogConf();
  RunResult result = Orvane({});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("plugin"));
  EXPECT_FALSE(sandbox_->Exists(paths::kSyslogDaemonPidFile));
  // The follow-up would have complained about the missing pid file.
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("pid"))));
  EXPECT_THAT(messages_, Contains("Executor has been Successfully Stopped"));
}

TEST_F(InitModeE2E, InitDumpStartsTheDaemonsRunsNoPluginAndStillReloads) {
  InstallSyslogDaemon();
  InstallEventDaemon();
  RunResult result = OrvaneThenAwaitReload({"--init", "--dump-dependency-tree=/tmp/graph.dot"});
  EXPECT_FALSE(result.timedOut);
  EXPECT_THAT(Recorded(),
              ElementsAre("zelsyslogd -i", "wexd start executor absent", "zelsyslogd reloaded"));
  EXPECT_THAT(messages_, Contains("Executor has been Successfully Stopped"));
}

TEST_F(InitModeE2E, DaemonModeNeitherStartsNorStopsTheExecutor) {
  InstallSyslogDaemon();
  InstallEventDaemon();
  sandbox_->WriteFile(paths::kChkconfig, "#!/bin/sh\nexit 0\n", 0755);  // lists no daemon
  RunResult result = Orvane({"--daemon", "--method=start"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre());
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("Executor"))));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("autoconf"))));
  EXPECT_THAT(messages_, Not(Contains(HasSubstr("boot state"))));
}

}  // namespace
}  // namespace orvane::testing
