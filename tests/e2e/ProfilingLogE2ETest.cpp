// The boot profiling log that runs of the installed orvane leave in the
// sandbox's /var/log/sysboot.log: the boot block of a plain run with its
// times and options, its replacement by the next boot run, the daemon block
// appended by daemon mode, and nothing from invoke mode.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

constexpr const char* kTime = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}";

/// Two injections, the second after the first, that take measurable time.
constexpr const char* kInjections =
    "slow::gate:sleep 0.3\n"
    "quick:gate::sleep 0.1\n";

/// Microseconds since the epoch of a "YYYY-MM-DD hh:mm:ss.uuuuuu" time in UTC.
std::int64_t Microseconds(const std::string& text) {
  std::tm calendar{};
  unsigned long micro = 0;
  EXPECT_EQ(
      std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d.%lu", &calendar.tm_year, &calendar.tm_mon,
                  &calendar.tm_mday, &calendar.tm_hour, &calendar.tm_min, &calendar.tm_sec, &micro),
      7)
      << text;
  calendar.tm_year -= 1900;
  calendar.tm_mon -= 1;
  return static_cast<std::int64_t>(timegm(&calendar)) * 1000000 + static_cast<std::int64_t>(micro);
}

/// One plugin line: its two times and its tag and name.
struct PluginLine {
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::string tagged;  ///< "sysboot: name" or "daemon: name"
};

PluginLine ParsePluginLine(const std::string& line) {
  static const std::regex pattern(std::string("\\[(") + kTime + ") - (" + kTime + ")\\] (.*)");
  std::smatch match;
  PluginLine parsed;
  EXPECT_TRUE(std::regex_match(line, match, pattern)) << line;
  if (match.size() == 4) {
    parsed = {Microseconds(match[1]), Microseconds(match[2]), match[3]};
  }
  return parsed;
}

/// The time after @p label on @p line.
std::int64_t TimeAfter(const std::string& line, const std::string& label) {
  EXPECT_THAT(line, MatchesRegex(label + kTime)) << line;
  return Microseconds(line.substr(label.size()));
}

class ProfilingLogE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    sandbox_->WriteFile(kDebugConfiguration, kInjections);
  }

  /// Runs orvane with @p options. The executor leaves its socket behind on
  /// purpose (one executor per boot); it goes as the reboot between two
  /// runs would take it.
  RunResult Orvane(std::vector<std::string> options) {
    if (sandbox_->Exists(kExecutorSocket)) sandbox_->Remove(kExecutorSocket);
    options.insert(options.begin(), kOrvane);
    const std::int64_t before = Now();
    RunResult result = sandbox_->Run(options);
    after_ = Now();
    before_ = before;
    EXPECT_FALSE(result.timedOut);
    return result;
  }

  static std::int64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
  }

  std::vector<std::string> Log() { return Lines(sandbox_->ReadFile(kProfilingLog)); }

  /// Checks a boot block of the two injections and returns the seed line.
  void ExpectBootBlock(const std::vector<std::string>& lines, const std::string& parallel,
                       const std::string& seed) {
    ASSERT_THAT(lines, SizeIs(11));
    EXPECT_THAT(lines[0], MatchesRegex("ZELKernel Initialization Time: [0-9]*000000"));
    const PluginLine slow = ParsePluginLine(lines[1]);
    const PluginLine quick = ParsePluginLine(lines[2]);
    EXPECT_EQ(slow.tagged, "sysboot: slow");
    EXPECT_EQ(quick.tagged, "sysboot: quick");
    EXPECT_THAT(std::vector<std::string>(lines.begin() + 3, lines.begin() + 4),
                ElementsAre("=== Orvane configuration info ==="));
    const std::int64_t start = TimeAfter(lines[4], " Start: ");
    const std::int64_t end = TimeAfter(lines[5], " End: ");
    EXPECT_THAT(std::vector<std::string>(lines.begin() + 6, lines.end()),
                ElementsAre(" Verbose: 0", " Parallel: " + parallel, " Randomize: 1",
                            " Interactive Mode: 0", " Random Seed: " + seed));

    // The times are those of this run, in the order things happened, and
    // each plugin took at least as long as its command sleeps.
    EXPECT_LE(before_, start);
    EXPECT_LE(start, slow.start);
    EXPECT_GE(slow.end - slow.start, 300000);
    EXPECT_LE(slow.end, quick.start);
    EXPECT_GE(quick.end - quick.start, 100000);
    EXPECT_LE(quick.end, end);
    EXPECT_LE(end, after_);
  }

  std::unique_ptr<Sandbox> sandbox_;
  std::int64_t before_ = 0;
  std::int64_t after_ = 0;
};

TEST_F(ProfilingLogE2E, PlainRunWritesTheBootBlock) {
  ASSERT_EQ(Orvane({"--randomize=-5"}).exitStatus, 0);
  ExpectBootBlock(Log(), "0", "-5");
  struct stat status {};
  ASSERT_EQ(::stat(sandbox_->HostPath(kProfilingLog).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ProfilingLogE2E, SeedDefaultsToTheStartTimeInSeconds) {
  ASSERT_EQ(Orvane({"--randomize"}).exitStatus, 0);
  const std::vector<std::string> lines = Log();
  ASSERT_THAT(lines, SizeIs(11));
  ASSERT_THAT(lines[10], MatchesRegex(" Random Seed: [0-9]+"));
  const std::int64_t seed = std::stoll(lines[10].substr(std::string(" Random Seed: ").size()));
  EXPECT_LE(before_ / 1000000, seed);
  EXPECT_LE(seed, after_ / 1000000);
}

TEST_F(ProfilingLogE2E, ParallelIsReportedUnlessTheHostIsStateless) {
  ASSERT_EQ(Orvane({"--parallel", "--randomize=1"}).exitStatus, 0);
  ExpectBootBlock(Log(), "1", "1");
  sandbox_->WriteFile(kStatelessMarker, "");
  RunResult second = Orvane({"--parallel", "--randomize=2"});
  ASSERT_EQ(second.exitStatus, 0) << second.out << second.err;
  ExpectBootBlock(Log(), "0", "2");
}

TEST_F(ProfilingLogE2E, SecondBootRunReplacesTheLogAndKeepsItsMode) {
  ASSERT_EQ(Orvane({"--randomize=1"}).exitStatus, 0);
  ASSERT_EQ(::chmod(sandbox_->HostPath(kProfilingLog).c_str(), 0644), 0);
  ASSERT_EQ(Orvane({"--randomize=2"}).exitStatus, 0);
  ExpectBootBlock(Log(), "0", "2");
  struct stat status {};
  ASSERT_EQ(::stat(sandbox_->HostPath(kProfilingLog).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
}

TEST_F(ProfilingLogE2E, InvokeModeLeavesTheLogAlone) {
  ASSERT_EQ(Orvane({"--randomize=1"}).exitStatus, 0);
  const std::string boot = sandbox_->ReadFile(kProfilingLog);
  ASSERT_EQ(
      Orvane({"--invoke", "--method=start", "--plugin=slow.debug", "--randomize=2"}).exitStatus, 0);
  EXPECT_EQ(sandbox_->ReadFile(kProfilingLog), boot);

  sandbox_->Remove(kProfilingLog);
  ASSERT_EQ(Orvane({"--invoke", "--method=start", "--plugin=slow.debug"}).exitStatus, 0);
  EXPECT_FALSE(sandbox_->Exists(kProfilingLog));
}

TEST_F(ProfilingLogE2E, DaemonRunAppendsTheDaemonBlockToTheBootBlock) {
  ASSERT_EQ(Orvane({"--randomize=1"}).exitStatus, 0);
  const std::vector<std::string> boot = Log();
  sandbox_->WriteFile("/etc/init.d/napper", "#!/bin/sh\nsleep 0.2\n", 0755);
  sandbox_->WriteFile(kServiceTool,
                      "#!/bin/sh\n[ \"$1\" = -p ] || exit 2\necho '/etc/init.d/napper 10'\n", 0755);
  ASSERT_EQ(Orvane({"--daemon=wait", "--method=start", "--verbose", "--randomize=3"}).exitStatus,
            0);

  const std::vector<std::string> lines = Log();
  ASSERT_THAT(lines, SizeIs(boot.size() + 9));
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + boot.size()), boot);
  const std::vector<std::string> daemon(lines.begin() + boot.size(), lines.end());
  const PluginLine napper = ParsePluginLine(daemon[0]);
  EXPECT_EQ(napper.tagged, "daemon: napper");
  EXPECT_GE(napper.end - napper.start, 200000);
  EXPECT_EQ(daemon[1], "=== Daemon configuration info ===");
  const std::int64_t start = TimeAfter(daemon[2], " Start Daemon: ");
  const std::int64_t end = TimeAfter(daemon[3], " End Daemon: ");
  EXPECT_LE(before_, start);
  EXPECT_LE(start, napper.start);
  EXPECT_LE(napper.end, end);
  EXPECT_LE(end, after_);
  EXPECT_THAT(std::vector<std::string>(daemon.begin() + 4, daemon.end()),
              ElementsAre(" Verbose: 1", " Parallel: 0", " Randomize: 1", " Interactive Mode: 0",
                          " Random Seed: 3"));
}

TEST_F(ProfilingLogE2E, DumpRunWritesTheBootBlockWithoutRunningPlugins) {
  Orvane({"--dump-dependency-tree=/tmp/tree.dot", "--randomize=4"});
  const std::vector<std::string> lines = Log();
  ASSERT_THAT(lines, SizeIs(11));
  EXPECT_EQ(lines[1], "[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: slow");
  EXPECT_EQ(lines[2], "[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: quick");
  EXPECT_EQ(lines[10], " Random Seed: 4");
}

}  // namespace
}  // namespace orvane::testing
