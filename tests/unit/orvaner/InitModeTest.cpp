#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <stdexcept>
#include <string>

#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "orvaner/run/InitMode.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// Stand-ins for the daemons and the upgrade script in a scratch directory,
/// each appending a line to "record".
class InitModeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    paths_.syslogDaemon = syslogDaemon_.c_str();
    paths_.eventDaemonScript = eventDaemon_.c_str();
    paths_.syslogConf = syslogConf_.c_str();
    paths_.syslogUpgradeScript = upgradeScript_.c_str();
    paths_.syslogDaemonPidFile = pidFile_.c_str();
  }

  void TearDown() override {
    if (sleeper_ > 0) {
      ::kill(sleeper_, SIGKILL);
      ::waitpid(sleeper_, nullptr, 0);
    }
  }

  void Script(const std::string& path, const std::string& body) {
    const std::string name = path.substr(directory_.Path().string().size() + 1);
    directory_.Write(name, "#!/bin/sh\n" + body + "\n");
    ::chmod(path.c_str(), 0755);
  }

  /// A child that SIGUSR1 ends (its default action), named by the pid file.
  void StartSleepingDaemon() {
    sleeper_ = ::fork();
    ASSERT_GE(sleeper_, 0);
    if (sleeper_ == 0) {
      ::execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    directory_.Write("zelsyslogd.pid", std::to_string(sleeper_) + "\n");
  }

  /// The signal that ended the sleeping daemon, waiting at most
  /// @p seconds; 0 when it still runs.
  int SleeperEndSignal(int seconds = 5) {
    for (int attempt = 0; attempt < seconds * 100; ++attempt) {
      int status = 0;
      if (::waitpid(sleeper_, &status, WNOHANG) == sleeper_) {
        sleeper_ = 0;
        return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
      }
      ::usleep(10000);
    }
    return 0;
  }

  std::string Record() const { return directory_.Read("record"); }

  /// ReloadSyslogDaemon with what it logs (standard error, as logging is
  /// not set up in the unit tests).
  std::string Reload() {
    ::testing::internal::CaptureStderr();
    ReloadSyslogDaemon(paths_);
    return ::testing::internal::GetCapturedStderr();
  }

  unit_testing::TemporaryDirectory directory_;
  const std::string record_ = directory_ / "record";
  const std::string syslogDaemon_ = directory_ / "zelsyslogd";
  const std::string eventDaemon_ = directory_ / "wexd";
  const std::string syslogConf_ = directory_ / "syslog.conf";
  const std::string upgradeScript_ = directory_ / "upgrade-syslog.conf.sh";
  const std::string pidFile_ = directory_ / "zelsyslogd.pid";
  InitModePaths paths_;
  pid_t sleeper_ = 0;
};

char* const kEnvironment[] = {const_cast<char*>("BOOT_STAGE=init"), nullptr};

// ---- the daemons before the plugins

TEST_F(InitModeTest, SyslogDaemonThenEventDaemonAreRunWithTheirArgumentsAndEnvironment) {
  Script(syslogDaemon_, "echo \"syslog $* $BOOT_STAGE\" >> " + record_);
  Script(eventDaemon_, "echo \"event $* $BOOT_STAGE\" >> " + record_);
  StartBootDaemons(kEnvironment, paths_);
  EXPECT_EQ(Record(), "syslog -i init\nevent start init\n");
}

TEST_F(InitModeTest, MissingSyslogDaemonDoesNotStopTheEventDaemon) {
  Script(eventDaemon_, "echo event >> " + record_);
  StartBootDaemons(kEnvironment, paths_);
  EXPECT_EQ(Record(), "event\n");
}

TEST_F(InitModeTest, FailingSyslogDaemonDoesNotStopTheEventDaemon) {
  Script(syslogDaemon_, "echo syslog >> " + record_ + "; exit 1");
  Script(eventDaemon_, "echo event >> " + record_ + "; kill -KILL $$");
  StartBootDaemons(kEnvironment, paths_);
  EXPECT_EQ(Record(), "syslog\nevent\n");
}

TEST_F(InitModeTest, DaemonsAreWaitedFor) {
  Script(syslogDaemon_, "sleep 0.3; echo syslog >> " + record_);
  Script(eventDaemon_, "sleep 0.3; echo event >> " + record_);
  StartBootDaemons(kEnvironment, paths_);
  EXPECT_EQ(Record(), "syslog\nevent\n");
}

// ---- the syslog follow-up after the plugins

TEST_F(InitModeTest, WithSyslogConfTheUpgradeRunsBeforeTheDaemonIsSignalled) {
  StartSleepingDaemon();
  directory_.Write("syslog.conf", "*.* /var/log/messages\n");
  Script(upgradeScript_, "if kill -0 " + std::to_string(sleeper_) +
                             "; then echo upgraded daemon-running; else echo upgraded daemon-gone; "
                             "fi >> " +
                             record_);
  EXPECT_EQ(Reload(), "");
  EXPECT_EQ(SleeperEndSignal(), SIGUSR1);
  EXPECT_EQ(Record(), "upgraded daemon-running\n");
}

TEST_F(InitModeTest, WithoutSyslogConfTheUpgradeIsSkippedButTheDaemonIsStillSignalled) {
  StartSleepingDaemon();
  Script(upgradeScript_, "echo upgraded >> " + record_);
  EXPECT_EQ(Reload(), "");
  EXPECT_EQ(SleeperEndSignal(), SIGUSR1);
  EXPECT_FALSE(directory_.Exists("record"));
}

TEST_F(InitModeTest, FailingOrMissingUpgradeScriptIsNotReportedAndTheSignalFollows) {
  StartSleepingDaemon();
  directory_.Write("syslog.conf", "");
  // Only a shell that cannot be started at all is reported; the script's
  // own failure, even its absence, is not.
  EXPECT_THAT(Reload(), Not(HasSubstr("failed to call")));
  EXPECT_EQ(SleeperEndSignal(), SIGUSR1);
}

TEST_F(InitModeTest, MissingPidFileIsReportedAfterTheUpgrade) {
  directory_.Write("syslog.conf", "");
  Script(upgradeScript_, "echo upgraded >> " + record_);
  EXPECT_THAT(Reload(), HasSubstr("unable to open zelksyslogd pid file."));
  EXPECT_EQ(Record(), "upgraded\n");
}

// A FIFO without a writer would hold an ordinary open, and the end of the
// boot with it, for ever.
TEST_F(InitModeTest, PidFileThatIsAFifoCannotBeOpenedAndSignalsNothing) {
  ASSERT_EQ(::mkfifo(pidFile_.c_str(), 0600), 0);
  EXPECT_THAT(Reload(), HasSubstr("unable to open zelksyslogd pid file."));
}

TEST_F(InitModeTest, PidFileBeyondAFewDigitsIsUnreadable) {
  StartSleepingDaemon();
  directory_.Write("zelsyslogd.pid", std::to_string(sleeper_) + std::string(100, ' ') + "\n");
  EXPECT_THAT(Reload(), HasSubstr("unable to read zelsyslogd pid."));
}

TEST_F(InitModeTest, PidFileWithoutANumberIsReportedAsUnreadable) {
  for (const char* content : {"", "zelsyslogd\n", "   \n"}) {
    directory_.Write("zelsyslogd.pid", content);
    EXPECT_THAT(Reload(), HasSubstr("unable to read zelsyslogd pid.")) << '"' << content << '"';
  }
}

// kill(0) and kill(-1) would signal a process group or every process, this
// test process among them; that it survives shows no signal was sent.
TEST_F(InitModeTest, PidThatIsNotPositiveIsUnreadableAndSignalsNothing) {
  for (const char* content : {"0\n", "-1\n", "-42\n"}) {
    directory_.Write("zelsyslogd.pid", content);
    EXPECT_THAT(Reload(), HasSubstr("unable to read zelsyslogd pid.")) << content;
  }
}

TEST_F(InitModeTest, SignalThatCannotBeSentIsReportedWithTheReason) {
  directory_.Write("zelsyslogd.pid", std::to_string(INT_MAX) + "\n");  // above any pid limit
  EXPECT_THAT(Reload(), HasSubstr("failed to reload zelsyslogd: No such process."));
}

TEST_F(InitModeTest, NumberWithoutLineEndIsStillRead) {
  StartSleepingDaemon();
  directory_.Write("zelsyslogd.pid", std::to_string(sleeper_));
  EXPECT_EQ(Reload(), "");
  EXPECT_EQ(SleeperEndSignal(), SIGUSR1);
}

// ---- the configuration store

int cleanupCalls = 0;

void CountCleanup() { ++cleanupCalls; }
void RefuseEndAutoConf() { throw std::runtime_error("store is read-only"); }
void RefuseCleanup() { throw std::runtime_error("boot state busy"); }
void ThrowUnknown() { throw 42; }
void DoNothing() {}

std::string EndConfiguration(void (*endAutoConf)(), void (*cleanupBootState)()) {
  ::testing::internal::CaptureStderr();
  EndBootConfiguration(endAutoConf, cleanupBootState);
  return ::testing::internal::GetCapturedStderr();
}

TEST(EndBootConfigurationTest, StoreCallsThatSucceedLogNothing) {
  cleanupCalls = 0;
  EXPECT_EQ(EndConfiguration(DoNothing, CountCleanup), "");
  EXPECT_EQ(cleanupCalls, 1);
}

TEST(EndBootConfigurationTest, FailedEndOfAutoConfIsLoggedAndTheCleanupStillRuns) {
  cleanupCalls = 0;
  EXPECT_THAT(EndConfiguration(RefuseEndAutoConf, CountCleanup),
              HasSubstr("Failed to disable autoconf: store is read-only"));
  EXPECT_EQ(cleanupCalls, 1);
}

TEST(EndBootConfigurationTest, FailedCleanupIsLogged) {
  const std::string logged = EndConfiguration(DoNothing, RefuseCleanup);
  EXPECT_THAT(logged, HasSubstr("Failed to cleanup boot state: boot state busy"));
  EXPECT_THAT(logged, Not(HasSubstr("autoconf")));
}

TEST(EndBootConfigurationTest, BothFailuresAreLogged) {
  const std::string logged = EndConfiguration(RefuseEndAutoConf, RefuseCleanup);
  EXPECT_THAT(logged, HasSubstr("Failed to disable autoconf: store is read-only"));
  EXPECT_THAT(logged, HasSubstr("Failed to cleanup boot state: boot state busy"));
}

TEST(EndBootConfigurationTest, ExceptionsOfUnknownTypeAreLoggedWithoutText) {
  const std::string logged = EndConfiguration(ThrowUnknown, ThrowUnknown);
  EXPECT_THAT(logged, HasSubstr("Failed to disable autoconf\n"));
  EXPECT_THAT(logged, HasSubstr("Failed to cleanup boot state\n"));
}

TEST(EndBootConfigurationTest, TheLinuxStoreNeverThrows) {
  EXPECT_EQ(EndConfiguration(QorConfigStore::EndAutoConf, QorConfigStore::CleanupBootState), "");
}

// ---- the upgrade script's outcomes, without processes

TEST_F(InitModeTest, UpgradeScriptThatCannotBeRunIsReportedByItsPath) {
  directory_.Write("syslog.conf", "");
  unit_testing::FakeSpawner spawner;
  spawner.shellStatus = process::ExitStatus::NotCollected(EAGAIN);
  const std::string logged = Reload();
  EXPECT_THAT(logged, HasSubstr("failed to call " + upgradeScript_ + "\n"));
  EXPECT_THAT(spawner.Calls(), ElementsAre("shell " + upgradeScript_));
}

TEST_F(InitModeTest, UpgradeScriptThatFailsOrIsKilledIsNotReported) {
  directory_.Write("syslog.conf", "");
  for (const process::ExitStatus& status :
       {process::ExitStatus::ExitedWith(1), process::ExitStatus::KilledBy(SIGKILL)}) {
    unit_testing::FakeSpawner spawner;
    spawner.shellStatus = status;
    EXPECT_THAT(Reload(), Not(HasSubstr("failed to call"))) << status.Text();
    EXPECT_THAT(spawner.Calls(), ElementsAre("shell " + upgradeScript_));
  }
}

TEST_F(InitModeTest, WithoutSyslogConfNoShellIsRun) {
  unit_testing::FakeSpawner spawner;
  Reload();
  EXPECT_THAT(spawner.Calls(), IsEmpty());
}

}  // namespace
}  // namespace orvane
