#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "log/Log.h"
#include "orvaner/run/ProfilingLog.h"

namespace orvane {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

/// A plugin that only carries the two times the log reports.
class TimedPlugin : public Plugin {
 public:
  TimedPlugin(std::string name, timeval start, timeval end) : Plugin(std::move(name)) {
    startTime = start;
    endTime = end;
  }
  void Start() override {}
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override {}
};

std::string ExpectedFile(const std::string& name) {
  std::ifstream stream(std::string(ORVANE_E2E_EXPECTED_DIR) + "/" + name, std::ios::binary);
  std::stringstream content;
  content << stream.rdbuf();
  return content.str();
}

class ProfilingLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Messages then go to standard error, where the tests read them.
    Log_Exit();
    options.verbose = true;
    options.parallel = false;
    options.randomize = true;
    options.interactive = true;
    options.randomSeed = -5;
    state.kernelUptimeSeconds = 42;
    state.startTime = {1709622248, 999999};
    state.endTime = {1735689599, 123456};
  }

  void AddPlugin(const std::string& name, timeval start, timeval end) {
    owned.push_back(std::make_unique<TimedPlugin>(name, start, end));
    plugins.push_back(owned.back().get());
  }

  /// The two plugins of the expected files.
  void AddExpectedPlugins() {
    AddPlugin("first.json", {1709622249, 512}, {1709622250, 250000});
    AddPlugin("second", {0, 0}, {0, 1});
  }

  std::string Boot() {
    std::ostringstream out;
    WriteBootBlock(out, plugins, options, state);
    return out.str();
  }

  std::string Daemon() {
    std::ostringstream out;
    WriteDaemonBlock(out, plugins, options, state);
    return out.str();
  }

  unit_testing::TemporaryDirectory directory;
  std::string logPath = directory / "sysboot.log";
  RunOptions options;
  RunState state;
  std::vector<std::unique_ptr<TimedPlugin>> owned;
  PluginList plugins;
};

// ---- the format

TEST_F(ProfilingLogTest, TimestampIsUtcToTheMicrosecondZeroFilled) {
  EXPECT_EQ(FormatProfilingTime({1709622249, 512}), "2024-03-05 07:04:09.000512");
  EXPECT_EQ(FormatProfilingTime({0, 0}), "1970-01-01 00:00:00.000000");
  EXPECT_EQ(FormatProfilingTime({1735689599, 999999}), "2024-12-31 23:59:59.999999");
}

TEST_F(ProfilingLogTest, TimestampIgnoresTheLocalTimeZone) {
  const char* previous = std::getenv("TZ");
  const std::string saved = previous != nullptr ? previous : "";
  ::setenv("TZ", "America/New_York", 1);
  ::tzset();
  const std::string formatted = FormatProfilingTime({1709622249, 512});
  if (previous != nullptr) {
    ::setenv("TZ", saved.c_str(), 1);
  } else {
    ::unsetenv("TZ");
  }
  ::tzset();
  EXPECT_EQ(formatted, "2024-03-05 07:04:09.000512");
}

TEST_F(ProfilingLogTest, BootBlockMatchesTheExpectedFile) {
  AddExpectedPlugins();
  EXPECT_EQ(Boot(), ExpectedFile("sysboot-boot.txt"));
}

TEST_F(ProfilingLogTest, DaemonBlockMatchesTheExpectedFileAndHasNoKernelTime) {
  AddExpectedPlugins();
  EXPECT_EQ(Daemon(), ExpectedFile("sysboot-daemon.txt"));
  EXPECT_THAT(Daemon(), ::testing::Not(HasSubstr("ZELKernel")));
}

TEST_F(ProfilingLogTest, WithNoPluginsTheBlockHoldsOnlyKernelTimeAndConfiguration) {
  const std::string expected = ExpectedFile("sysboot-boot.txt");
  std::string withoutPlugins;
  std::istringstream lines(expected);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("[")) withoutPlugins += line + "\n";
  }
  ASSERT_NE(withoutPlugins, expected);
  EXPECT_EQ(Boot(), withoutPlugins);
}

TEST_F(ProfilingLogTest, OptionsAreReportedAsTheyStand) {
  options.verbose = false;
  options.parallel = true;
  options.randomize = false;
  options.interactive = false;
  options.randomSeed = 1735689599;
  state.kernelUptimeSeconds = 0;
  EXPECT_THAT(Boot(), HasSubstr("ZELKernel Initialization Time: 0\n"));
  EXPECT_THAT(Boot(), HasSubstr("\n Verbose: 0\n Parallel: 1\n Randomize: 0\n Interactive Mode: 0\n"
                                " Random Seed: 1735689599\n"));
}

TEST_F(ProfilingLogTest, KernelTimeIsWholeSecondsInMicroseconds) {
  state.kernelUptimeSeconds = 5000000;  // beyond 32 bits once in microseconds
  EXPECT_THAT(Boot(), ::testing::StartsWith("ZELKernel Initialization Time: 5000000000000\n"));
}

// ---- the file

TEST_F(ProfilingLogTest, BootRunWritesTheBootBlockAsANewFile) {
  AddExpectedPlugins();
  WriteBootProfile(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"), ExpectedFile("sysboot-boot.txt"));
  EXPECT_EQ(std::filesystem::directory_iterator(directory.Path())->path().string(), logPath);
}

TEST_F(ProfilingLogTest, SecondBootRunLeavesOnlyItsOwnBootBlock) {
  AddExpectedPlugins();
  WriteBootProfile(plugins, options, state, logPath);
  options.randomSeed = 77;
  owned.clear();
  plugins.clear();
  AddPlugin("third", {1, 2}, {3, 4});
  WriteBootProfile(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"), Boot());
  EXPECT_THAT(directory.Read("sysboot.log"), ::testing::Not(HasSubstr("first.json")));
}

TEST_F(ProfilingLogTest, DaemonRunAfterBootRunAppendsItsBlock) {
  AddExpectedPlugins();
  WriteBootProfile(plugins, options, state, logPath);
  WriteDaemonProfile(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"),
            ExpectedFile("sysboot-boot.txt") + ExpectedFile("sysboot-daemon.txt"));
}

TEST_F(ProfilingLogTest, DaemonRunWithoutALogStartsOne) {
  AddExpectedPlugins();
  WriteDaemonProfile(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"), ExpectedFile("sysboot-daemon.txt"));
}

TEST_F(ProfilingLogTest, RewritingKeepsTheLogsMode) {
  directory.Write("sysboot.log", "old\n");
  ASSERT_EQ(::chmod(logPath.c_str(), 0644), 0);
  WriteBootProfile(plugins, options, state, logPath);
  WriteDaemonProfile(plugins, options, state, logPath);
  struct stat status {};
  ASSERT_EQ(::stat(logPath.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
}

TEST_F(ProfilingLogTest, ModesChooseTheBlock) {
  AddExpectedPlugins();
  options.invoke = true;
  WriteProfilingLog(plugins, options, state, logPath);
  EXPECT_FALSE(directory.Exists("sysboot.log"));

  options.invoke = false;
  state.dump = true;
  WriteProfilingLog(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"), ExpectedFile("sysboot-boot.txt"));

  state.dump = false;
  state.daemon = true;
  WriteProfilingLog(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"),
            ExpectedFile("sysboot-boot.txt") + ExpectedFile("sysboot-daemon.txt"));

  state.daemon = false;
  state.init = true;
  WriteProfilingLog(plugins, options, state, logPath);
  EXPECT_EQ(directory.Read("sysboot.log"), ExpectedFile("sysboot-boot.txt"));
}

// ---- failures

TEST_F(ProfilingLogTest, UnopenableBootLogIsReportedAndNothingIsWritten) {
  const std::string path = directory / "missing/sysboot.log";
  ::testing::internal::CaptureStderr();
  WriteBootProfile(plugins, options, state, path);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "unable to open profiling log (" + path + "): No such file or directory.\n");
  EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(ProfilingLogTest, UnopenableDaemonLogIsReportedAsReopen) {
  const std::string path = directory / "missing/sysboot.log";
  ::testing::internal::CaptureStderr();
  WriteDaemonProfile(plugins, options, state, path);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "unable to reopen profiling log (" + path + "): No such file or directory.\n");
  EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(ProfilingLogTest, FailedCommitIsReportedAndLeavesTheDestination) {
  std::filesystem::create_directory(logPath);
  ::testing::internal::CaptureStderr();
  WriteBootProfile(plugins, options, state, logPath);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              MatchesRegex("unable to log profiling information: unable to rename '" + logPath +
                           "\\.[A-Za-z0-9]{6}' to '" + logPath + "': Is a directory\\.\n"));
  EXPECT_TRUE(std::filesystem::is_directory(logPath));
}

TEST_F(ProfilingLogTest, DaemonLogThatExistsButCannotBeReadIsNotReplaced) {
  // Appending to it would lose what it holds.
  std::filesystem::create_directory(logPath);
  ::testing::internal::CaptureStderr();
  WriteDaemonProfile(plugins, options, state, logPath);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "unable to reopen profiling log (" + logPath + "): Is a directory.\n");
  EXPECT_TRUE(std::filesystem::is_directory(logPath));
}

// ---- durability

/// A writer child that rewrites the log with boot blocks and appends daemon
/// blocks to them as fast as it can, killed at a random moment: each time
/// the log is the old file, a complete boot block, or a complete boot block
/// followed by a complete daemon block of the same run, never part of one.
TEST_F(ProfilingLogTest, KilledWriterNeverLeavesAPartialLog) {
  constexpr int kRuns = 200;
  constexpr int kPluginCount = 1500;  // about 110 KB a block, one write per line
  for (int index = 0; index < kPluginCount; ++index) {
    AddPlugin("plugin-" + std::to_string(index), {1709622249 + index, index},
              {1709622250 + index, 999999 - index});
  }
  const std::string old = "the log of an earlier boot\n";
  directory.Write("sysboot.log", old);

  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delayMicroseconds(0, 40000);
  const std::string seedLabel = " Random Seed: ";
  int partialTemporaryFiles = 0;
  int bootOnly = 0;
  int bootAndDaemon = 0;
  std::string previous = old;
  for (int run = 0; run < kRuns; ++run) {
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (std::int64_t round = 0;; ++round) {
        options.randomSeed = run * 1000000 + round;
        WriteBootProfile(plugins, options, state, logPath);
        WriteDaemonProfile(plugins, options, state, logPath);
      }
    }
    ::usleep(delayMicroseconds(random));
    ASSERT_EQ(::kill(writer, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status));

    const std::string now = directory.Read("sysboot.log");
    if (now == old) {
      ASSERT_EQ(previous, old) << "run " << run << " brought back the first log";
    } else {
      const std::size_t seed = now.find(seedLabel);
      ASSERT_NE(seed, std::string::npos) << "run " << run << ": " << now.substr(0, 200);
      options.randomSeed = std::stoll(now.substr(seed + seedLabel.size()));
      const std::string boot = Boot();
      if (now == boot) {
        ++bootOnly;
      } else {
        ASSERT_EQ(now, boot + Daemon()) << "run " << run;
        ++bootAndDaemon;
      }
    }
    previous = now;

    // The killed writer's temporary file, if it was killed mid-write.
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
      if (entry.path().string() == logPath) continue;
      ASSERT_THAT(entry.path().filename().string(), MatchesRegex("sysboot\\.log\\.[A-Za-z0-9]{6}"));
      ++partialTemporaryFiles;
      std::filesystem::remove(entry.path());
    }
  }
  // The kills must have landed while a block was being written, in both
  // kinds of write, or the checks above proved nothing.
  EXPECT_GT(partialTemporaryFiles, kRuns / 10);
  EXPECT_GT(bootOnly, 0);
  EXPECT_GT(bootAndDaemon, 0);
  RecordProperty("PartialTemporaryFiles", partialTemporaryFiles);
  std::cout << "killed mid-write " << partialTemporaryFiles << " of " << kRuns
            << " times; boot block alone " << bootOnly << ", boot and daemon block "
            << bootAndDaemon << "\n";
}

}  // namespace
}  // namespace orvane
