// Tests of the end-to-end harness itself, with programs of this machine
// and a small stage of their own. Inside a sandbox this binary doubles as a
// syslog(3) client (see main), so that the C library's own message format
// is what the listener is tested against.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "SandboxGTest.h"

namespace fs = std::filesystem;
using orvane::testing::RunResult;
using orvane::testing::RunSettings;
using orvane::testing::Sandbox;
using orvane::testing::SyslogListener;
using orvane::testing::SyslogRecord;

namespace {

constexpr std::string_view kSyslogClientFlag = "--syslog-client";

std::string ReadHostFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void WriteHostFile(const fs::path& path, std::string_view content, fs::perms mode) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  fs::permissions(path, mode);
}

// An argument no other process on this machine has, so that the tests can
// look for leftover processes on the host by their command line.
std::string UniqueSleepSeconds() { return "1000." + std::to_string(::getpid()); }

bool HostRunsSleep(const std::string& seconds) {
  const std::string wanted = std::string("sleep") + '\0' + seconds + '\0';
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const auto name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (ReadHostFile(entry.path() / "cmdline").find(wanted) != std::string::npos) return true;
  }
  return false;
}

bool TestProcessMounts(const fs::path& path) {
  return ReadHostFile("/proc/self/mountinfo").find(path.string()) != std::string::npos;
}

RunResult Shell(Sandbox& sandbox, const std::string& script, const RunSettings& settings = {}) {
  return sandbox.Run({"/bin/sh", "-c", script}, settings);
}

/// A sandbox holding a small stage of the test's own: a script in
/// usr/local/bin, a file under var/run (on this host a symlink to /run), a
/// replacement for the host's /etc/issue and a library symlink.
class StagedSandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    char pattern[] = "/tmp/orvane-selftest-stage-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    stage_ = pattern;
    WriteHostFile(stage_ / "usr/local/bin/hello-script", "#!/bin/sh\necho hello from the stage\n",
                  fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                      fs::perms::others_read | fs::perms::others_exec);
    WriteHostFile(stage_ / "var/run/orvane-selftest/f", "through the symlink\n",
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                      fs::perms::others_read);
    WriteHostFile(stage_ / "etc/issue", "staged issue\n",
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                      fs::perms::others_read);
    fs::create_directories(stage_ / "usr/local/lib");
    fs::create_symlink("orvane-selftest.so.1", stage_ / "usr/local/lib/orvane-selftest.so");
    sandbox_.emplace(stage_);
  }

  void TearDown() override {
    sandbox_.reset();
    if (!stage_.empty()) fs::remove_all(stage_);
  }

  Sandbox& sandbox() { return *sandbox_; }
  const fs::path& stage() const { return stage_; }

 private:
  fs::path stage_;
  std::optional<Sandbox> sandbox_;
};

using SandboxFiles = StagedSandbox;
using SandboxProcesses = StagedSandbox;
using SandboxLogs = StagedSandbox;

// ---- files

TEST_F(SandboxFiles, ProgramWritesStayInsideTheSandbox) {
  const auto result = Shell(sandbox(), "echo inside > /etc/orvane-selftest-written");
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(sandbox().ReadFile("/etc/orvane-selftest-written"), "inside\n");
  EXPECT_FALSE(fs::exists("/etc/orvane-selftest-written"));
}

TEST_F(SandboxFiles, ProgramSeesTheHostsFiles) {
  const auto result = sandbox().Run({"/bin/cat", "/etc/debian_version"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, ReadHostFile("/etc/debian_version"));
}

TEST_F(SandboxFiles, StageFilesArrive) {
  const auto result = sandbox().Run({"/usr/local/bin/hello-script"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "hello from the stage\n");
  EXPECT_FALSE(sandbox().Exists("/.orvane-stage"));
}

TEST_F(SandboxFiles, StageReplacesHostFilesAndCopiesSymlinks) {
  ASSERT_TRUE(fs::exists("/etc/issue"));
  const std::string hostIssue = ReadHostFile("/etc/issue");
  const auto result =
      Shell(sandbox(), "cat /etc/issue; readlink /usr/local/lib/orvane-selftest.so");
  EXPECT_EQ(result.out, "staged issue\norvane-selftest.so.1\n") << result.err;
  EXPECT_EQ(ReadHostFile("/etc/issue"), hostIssue);
}

TEST_F(SandboxFiles, StageFilesFollowTheHostsDirectorySymlinks) {
  ASSERT_TRUE(fs::is_symlink("/var/run"))
      << "this test expects /var/run to be a symlink, as on Debian";
  const auto result = sandbox().Run({"/bin/cat", "/run/orvane-selftest/f"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "through the symlink\n");
  EXPECT_TRUE(fs::is_symlink(sandbox().HostPath("/var") / "run"))
      << "the stage replaced the /var/run symlink";
  EXPECT_EQ(sandbox().ReadFile("/var/run/orvane-selftest/f"), "through the symlink\n");
  EXPECT_FALSE(fs::exists("/run/orvane-selftest"));
}

TEST_F(SandboxFiles, WriteFileResolvesSymlinksInsideTheSandbox) {
  sandbox().WriteFile("/var/run/orvane-selftest-written/x", "value", 0600);
  EXPECT_FALSE(fs::exists("/run/orvane-selftest-written"));
  EXPECT_EQ(sandbox().HostPath("/var/run/orvane-selftest-written/x"),
            sandbox().HostPath("/") / "run/orvane-selftest-written/x");
  const auto result = Shell(
      sandbox(), "stat -c %a /run/orvane-selftest-written/x; cat /run/orvane-selftest-written/x");
  EXPECT_EQ(result.out, "600\nvalue");
}

TEST_F(SandboxFiles, FileHelpers) {
  sandbox().MakeDirectory("/srv/orvane-selftest/deep");
  EXPECT_TRUE(sandbox().Exists("/srv/orvane-selftest/deep"));
  const fs::path script = stage() / "usr/local/bin/hello-script";
  sandbox().CopyIn(script, "/srv/orvane-selftest/deep/copied");
  EXPECT_EQ(sandbox().ReadFile("/srv/orvane-selftest/deep/copied"), ReadHostFile(script));
  EXPECT_EQ(sandbox().Run({"/srv/orvane-selftest/deep/copied"}).out, "hello from the stage\n");
  sandbox().Remove("/srv/orvane-selftest");
  EXPECT_FALSE(sandbox().Exists("/srv/orvane-selftest"));
  EXPECT_THROW(sandbox().ReadFile("/srv/orvane-selftest/deep/copied"), std::runtime_error);
  EXPECT_FALSE(fs::exists("/srv/orvane-selftest"));
}

TEST_F(SandboxFiles, RemoveTakesTheSymlinkNotItsTarget) {
  sandbox().WriteFile("/srv/orvane-selftest/target", "kept");
  ASSERT_EQ(
      Shell(sandbox(), "ln -s /srv/orvane-selftest/target /srv/orvane-selftest/link").exitStatus,
      0);
  sandbox().Remove("/srv/orvane-selftest/link");
  EXPECT_FALSE(sandbox().Exists("/srv/orvane-selftest/link"));
  EXPECT_EQ(sandbox().ReadFile("/srv/orvane-selftest/target"), "kept");
}

TEST(SandboxConstruction, MissingStageIsAClearError) {
  ORVANE_REQUIRE_SANDBOX();
  const fs::path missing = "/tmp/orvane-selftest-no-such-stage";
  ASSERT_FALSE(fs::exists(missing));
  try {
    Sandbox sandbox(missing);
    FAIL() << "a sandbox was built from a missing stage";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(missing.string()), std::string::npos) << error.what();
  }
}

TEST(SandboxConstruction, DestroyingRemovesMountsAndTemporaryDirectory) {
  ORVANE_REQUIRE_SANDBOX();
  fs::path base;
  {
    Sandbox sandbox("");
    base = sandbox.HostPath("/").parent_path();
    ASSERT_TRUE(fs::is_directory(base));
    EXPECT_TRUE(TestProcessMounts(base));
    EXPECT_EQ(sandbox.Run({"/bin/true"}).exitStatus, 0);
  }
  EXPECT_FALSE(fs::exists(base));
  EXPECT_FALSE(TestProcessMounts(base));
}

TEST(SandboxConstruction, TwoSandboxesAreIndependent) {
  ORVANE_REQUIRE_SANDBOX();
  Sandbox first("");
  Sandbox second("");  // staged and forked while the first one's listener thread runs
  first.WriteFile("/etc/orvane-selftest-only-first", "1");
  EXPECT_EQ(Shell(first, "logger -t first one").exitStatus, 0);
  EXPECT_TRUE(first.Exists("/etc/orvane-selftest-only-first"));
  EXPECT_FALSE(second.Exists("/etc/orvane-selftest-only-first"));
  EXPECT_EQ(Shell(second, "cat /etc/orvane-selftest-only-first").exitStatus, 1);
  EXPECT_EQ(first.Syslog().size(), 1u);
  EXPECT_TRUE(second.Syslog().empty());
}

TEST(SandboxConstruction, ExpectedFileNamesTheMissingFile) {
  try {
    orvane::testing::ExpectedFile("orvane-selftest-no-such-expectation.txt");
    FAIL() << "reading a missing expected file did not throw";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what())
                  .find("tests/e2e/expected/orvane-selftest-no-such-expectation.txt"),
              std::string::npos)
        << error.what();
  }
}

// ---- processes

TEST_F(SandboxProcesses, ProgramIsTheOnlyChildOfItsOwnInit) {
  // The glob needs no further process, so /proc lists exactly init and the shell.
  const auto result = Shell(sandbox(), "echo $$; echo /proc/[0-9]*");
  EXPECT_EQ(result.out, "2\n/proc/1 /proc/2\n") << result.err;
}

TEST_F(SandboxProcesses, BackgroundProcessesDieWithTheRun) {
  const auto seconds = UniqueSleepSeconds();
  const auto result =
      Shell(sandbox(), "sleep " + seconds + " & sleep 0.2; kill -0 $! && echo alive");
  EXPECT_EQ(result.out, "alive\n") << result.err;
  EXPECT_FALSE(HostRunsSleep(seconds));
}

TEST_F(SandboxProcesses, ExitCodeIsReported) {
  const auto result = Shell(sandbox(), "exit 7");
  EXPECT_EQ(result.exitStatus, 7);
  EXPECT_EQ(result.termSignal, 0);
  EXPECT_FALSE(result.timedOut);
}

TEST_F(SandboxProcesses, KillingSignalIsReported) {
  const auto result = Shell(sandbox(), "kill -9 $$");
  EXPECT_EQ(result.exitStatus, -1);
  EXPECT_EQ(result.termSignal, SIGKILL);
  EXPECT_FALSE(result.timedOut);
}

TEST_F(SandboxProcesses, ExitCodeAboveOneHundredTwentyEightIsNotASignal) {
  const auto result = Shell(sandbox(), "exit 137");
  EXPECT_EQ(result.exitStatus, 137);
  EXPECT_EQ(result.termSignal, 0);
}

TEST_F(SandboxProcesses, TimeOutKillsEverything) {
  const auto seconds = UniqueSleepSeconds();
  RunSettings settings;
  settings.timeout = std::chrono::seconds(1);
  const auto start = std::chrono::steady_clock::now();
  const auto result = Shell(sandbox(), "echo started; sleep " + seconds + " & sleep 100", settings);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  // Killed, not ended by itself: had the run waited out "sleep 100", the
  // shell would have exited with 0.
  EXPECT_TRUE(result.timedOut);
  EXPECT_EQ(result.termSignal, SIGKILL);
  EXPECT_EQ(result.out, "started\n");
  // The time-out given, not the default one of a minute; either is far above
  // the one second the run takes.
  EXPECT_LT(elapsed, RunSettings{}.timeout);
  EXPECT_FALSE(HostRunsSleep(seconds));
}

TEST_F(SandboxProcesses, ClosedStdoutCannotBeWritten) {
  RunSettings settings;
  settings.closeStdout = true;
  const auto result = Shell(sandbox(), "echo x", settings);
  EXPECT_TRUE(result.exitStatus != 0 || !result.err.empty())
      << "echo succeeded with standard output closed";
  EXPECT_EQ(result.out, "");
  const auto open =
      Shell(sandbox(), "test -e /proc/self/fd/1 && echo open >&2 || echo closed >&2", settings);
  EXPECT_EQ(open.err, "closed\n");
}

TEST_F(SandboxProcesses, StdinTextReachesTheProgram) {
  RunSettings settings;
  settings.stdinText = "first line\nsecond line\n";
  const auto result = sandbox().Run({"/bin/cat"}, settings);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.out, settings.stdinText);
}

TEST_F(SandboxProcesses, EnvironmentIsExactlyTheGivenOne) {
  RunSettings settings;
  settings.environment = {"ONE=1", "TWO=two words"};
  const auto result = sandbox().Run({"/usr/bin/env"}, settings);
  EXPECT_EQ(result.out, "ONE=1\nTWO=two words\n");
}

TEST_F(SandboxProcesses, StandardErrorIsCapturedApart) {
  const auto result = Shell(sandbox(), "echo to-out; echo to-err >&2");
  EXPECT_EQ(result.out, "to-out\n");
  EXPECT_EQ(result.err, "to-err\n");
}

TEST_F(SandboxProcesses, MissingProgramThrows) {
  try {
    sandbox().Run({"/usr/bin/orvane-selftest-no-such-program"});
    FAIL() << "running a missing program did not throw";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("orvane-selftest-no-such-program"), std::string::npos)
        << error.what();
  }
}

TEST_F(SandboxProcesses, DevicesWork) {
  const auto result = Shell(sandbox(),
                            "head -c 16 /dev/urandom | wc -c; head -c 4 /dev/zero | od -An -tx1; "
                            "echo gone > /dev/null; echo via-symlink >> /dev/stdout; "
                            "echo full > /dev/full || echo full-failed");
  EXPECT_EQ(result.out, "16\n 00 00 00 00\nvia-symlink\nfull-failed\n") << result.err;
}

TEST_F(SandboxProcesses, HostnameChangesStayInside) {
  const std::string hostname = ReadHostFile("/proc/sys/kernel/hostname");
  const auto result = Shell(sandbox(), "hostname orvane-selftest && hostname");
  EXPECT_EQ(result.out, "orvane-selftest\n") << result.err;
  EXPECT_EQ(ReadHostFile("/proc/sys/kernel/hostname"), hostname);
}

// ---- logs

TEST_F(SandboxLogs, LoggerReachesSyslog) {
  const auto result = Shell(sandbox(), "logger -t orvane hello");
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const auto records = sandbox().Syslog();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].ident, "orvane");
  EXPECT_EQ(records[0].message, "hello");
  EXPECT_EQ(records[0].priority, 13) << "logger's default is user.notice";
}

TEST_F(SandboxLogs, ManyMessagesDoNotBlock) {
  RunSettings settings;
  settings.timeout = std::chrono::seconds(30);
  const auto result = Shell(sandbox(), "seq 50 | logger -t orvane", settings);
  ASSERT_FALSE(result.timedOut);
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const auto records = sandbox().Syslog();
  ASSERT_EQ(records.size(), 50u);
  for (std::size_t index = 0; index < records.size(); ++index) {
    EXPECT_EQ(records[index].message, std::to_string(index + 1));
  }
}

TEST_F(SandboxLogs, CLibrarySyslogFormatIsParsed) {
  sandbox().CopyIn("/proc/self/exe", "/usr/local/bin/syslog-client");
  const auto result = sandbox().Run({"/usr/local/bin/syslog-client", std::string(kSyslogClientFlag),
                                     "orvane-client", "two\nlines\n"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const auto records = sandbox().Syslog();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].ident, "orvane-client");
  EXPECT_EQ(records[0].pid, 2);
  EXPECT_EQ(records[0].facility, LOG_DAEMON >> 3);
  EXPECT_EQ(records[0].severity, LOG_WARNING);
  EXPECT_EQ(records[0].priority, LOG_DAEMON | LOG_WARNING);
  EXPECT_EQ(records[0].message, "two\nlines\n");
}

TEST_F(SandboxLogs, SyslogKeepsRecordsOfEarlierRuns) {
  Shell(sandbox(), "logger -t first one");
  Shell(sandbox(), "logger -t second two");
  const auto records = sandbox().Syslog();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].ident, "first");
  EXPECT_EQ(records[1].ident, "second");
}

TEST_F(SandboxLogs, KmsgIsAPlainFileThatCollectsWrites) {
  EXPECT_EQ(sandbox().Kmsg(), "");
  const auto result =
      Shell(sandbox(), "test -f /dev/kmsg && echo one >> /dev/kmsg && echo two >> /dev/kmsg");
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(sandbox().Kmsg(), "one\ntwo\n");
}

TEST_F(SandboxLogs, ConsoleIsAPlainFileThatCollectsWrites) {
  const auto result = Shell(sandbox(), "test -f /dev/console && echo on-console >> /dev/console");
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(sandbox().Console(), "on-console\n");
  EXPECT_EQ(sandbox().Kmsg(), "");
}

// ---- the syslog format, without a sandbox

TEST(SandboxSyslogParsing, SplitsAllFields) {
  const SyslogRecord record =
      SyslogListener::Parse("<30>Nov 21 01:02:03 orvane[42]: plugin started");
  EXPECT_EQ(record.priority, 30);
  EXPECT_EQ(record.facility, 3);
  EXPECT_EQ(record.severity, 6);
  EXPECT_EQ(record.ident, "orvane");
  EXPECT_EQ(record.pid, 42);
  EXPECT_EQ(record.message, "plugin started");
  EXPECT_EQ(record.raw, "<30>Nov 21 01:02:03 orvane[42]: plugin started");
}

TEST(SandboxSyslogParsing, KeepsNewlinesAndSpacePaddedDays) {
  const SyslogRecord record =
      SyslogListener::Parse("<11>Nov  1 23:59:59 orvane[7]: first\nsecond: x\n");
  EXPECT_EQ(record.ident, "orvane");
  EXPECT_EQ(record.pid, 7);
  EXPECT_EQ(record.message, "first\nsecond: x\n");
}

TEST(SandboxSyslogParsing, IdentWithoutPid) {
  const SyslogRecord record = SyslogListener::Parse("<13>Jan 10 10:00:00 orvane: hello");
  EXPECT_EQ(record.ident, "orvane");
  EXPECT_EQ(record.pid, 0);
  EXPECT_EQ(record.message, "hello");
}

TEST(SandboxSyslogParsing, DropsTheNulOfStreamSenders) {
  const SyslogRecord record =
      SyslogListener::Parse(std::string("<13>Jan 10 10:00:00 orvane: hello") + '\0');
  EXPECT_EQ(record.message, "hello");
}

TEST(SandboxSyslogParsing, WhatCannotBeParsedStaysMessage) {
  const SyslogRecord noHeader = SyslogListener::Parse("just text: with colon");
  EXPECT_EQ(noHeader.priority, -1);
  EXPECT_EQ(noHeader.ident, "");
  EXPECT_EQ(noHeader.message, "just text: with colon");
  const SyslogRecord noTag = SyslogListener::Parse("<13>Jan 10 10:00:00 no tag here");
  EXPECT_EQ(noTag.priority, 13);
  EXPECT_EQ(noTag.ident, "");
  EXPECT_EQ(noTag.message, "no tag here");
  const SyslogRecord badPriority = SyslogListener::Parse("<1x>Jan 10 10:00:00 orvane: m");
  EXPECT_EQ(badPriority.priority, -1);
  EXPECT_EQ(badPriority.message, "<1x>Jan 10 10:00:00 orvane: m");
}

// Sends one message through the C library's syslog(3), as the program under
// test will, then exits.
int SendSyslog(const char* ident, const char* message) {
  ::openlog(ident, LOG_PID, LOG_DAEMON);
  ::syslog(LOG_WARNING, "%s", message);
  ::closelog();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && argv[1] == kSyslogClientFlag) return SendSyslog(argv[2], argv[3]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
