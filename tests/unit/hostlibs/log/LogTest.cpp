#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <ctime>
#include <regex>
#include <string>
#include <thread>

#include "log/Dictionary.h"
#include "log/Log.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// Each test starts from a library without outputs and leaves it so.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { Log_Exit(); }
  void TearDown() override {
    Log_Exit();
    Dictionary_Free(settings_);
  }

  LogOutput* NewStdio(const char* level, bool timeStamps, bool milliseconds) {
    Dictionary_Clear(settings_);
    Dict_SetString(settings_, "log.stdoutLevel", level);
    Dict_SetBool(settings_, "log.useTimeStamps.stdio", timeStamps);
    Dict_SetBool(settings_, "log.useMilliseconds.stdio", milliseconds);
    return Log_NewStdioOutput("orvane", settings_);
  }

  void AddStdio(const char* level, bool timeStamps = false, bool milliseconds = false) {
    ASSERT_TRUE(Log_AddOutput(NewStdio(level, timeStamps, milliseconds)));
  }

  Dictionary* settings_ = Dictionary_Create();
};

template <typename Action>
std::string CapturedStdout(Action action) {
  ::testing::internal::CaptureStdout();
  action();
  return ::testing::internal::GetCapturedStdout();
}

template <typename Action>
std::string CapturedStderr(Action action) {
  ::testing::internal::CaptureStderr();
  action();
  return ::testing::internal::GetCapturedStderr();
}

TEST_F(LogTest, MessagesBeforeSetUpGoToStandardError) {
  std::string out;
  std::string err =
      CapturedStderr([&] { out = CapturedStdout([] { Log_Level(3, "early %d\n", 1); }); });
  EXPECT_EQ(err, "early 1\n");
  EXPECT_EQ(out, "");
}

TEST_F(LogTest, StdioChannelWritesMillisecondUtcTimestamps) {
  AddStdio("info", true, true);
  std::time_t before = std::time(nullptr);
  std::string out = CapturedStdout([] { Log_Level(5, "Launching Executor\n"); });
  std::time_t after = std::time(nullptr);

  std::smatch fields;
  std::regex line(
      R"(^(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)\.\d{3}Z orvane: Launching Executor\n$)");
  ASSERT_TRUE(std::regex_match(out, fields, line)) << out;
  std::tm stamp{};
  stamp.tm_year = std::stoi(fields[1]) - 1900;
  stamp.tm_mon = std::stoi(fields[2]) - 1;
  stamp.tm_mday = std::stoi(fields[3]);
  stamp.tm_hour = std::stoi(fields[4]);
  stamp.tm_min = std::stoi(fields[5]);
  stamp.tm_sec = std::stoi(fields[6]);
  // Read as UTC, the stamp must be the time the message was written.
  std::time_t written = timegm(&stamp);
  EXPECT_GE(written, before);
  EXPECT_LE(written, after);
}

TEST_F(LogTest, StdioChannelWithoutMillisecondsShowsWholeSeconds) {
  AddStdio("info", true, false);
  std::string out = CapturedStdout([] { Log_Level(5, "tick\n"); });
  EXPECT_TRUE(std::regex_match(out, std::regex(R"(^[0-9-]{10}T[0-9:]{8}Z orvane: tick\n$)")))
      << out;
}

TEST_F(LogTest, StdioChannelWithoutTimestamps) {
  AddStdio("info");
  EXPECT_EQ(CapturedStdout([] { Log_Level(5, "plain\n"); }), "orvane: plain\n");
}

TEST_F(LogTest, EveryMessageEndsWithExactlyOneLineEnd) {
  AddStdio("info");
  std::string out = CapturedStdout([] {
    Log_Level(5, "with\n");
    Log_Level(5, "without");
    Log_Level(2, "unhandled exception whilst enumerating plugins.\nDetails:\n %s \n\n", "boom");
  });
  EXPECT_EQ(out,
            "orvane: with\n"
            "orvane: without\n"
            "orvane: unhandled exception whilst enumerating plugins.\nDetails:\n boom \n\n");
}

TEST_F(LogTest, InfoThresholdTakesErrorsWarningsNoticesAndInfoButNotDebug) {
  AddStdio("info");
  std::string out = CapturedStdout([] {
    for (int level = 0; level <= 7; ++level) {
      Log_Level(level, "level %d\n", level);
    }
  });
  EXPECT_EQ(out,
            "orvane: level 0\norvane: level 1\norvane: level 2\norvane: level 3\n"
            "orvane: level 4\norvane: level 5\n");
}

TEST_F(LogTest, WarningThresholdDropsInformation) {
  AddStdio("warning");
  std::string out = CapturedStdout([] {
    Warning("Failed opening %s", "/dev/null");
    Log_Level(5, "progress\n");
    Log_Level(2, "failure\n");
  });
  EXPECT_EQ(out, "orvane: Failed opening /dev/null\norvane: failure\n");
}

TEST_F(LogTest, MessageThatNoOutputTakesIsNotFormatted) {
  AddStdio("warning");
  Log_SetStderrLevel(2, 0xFFFFFFFF);
  // Formatting would read the string at this address and crash; a message
  // above every output's threshold must not get that far.
  const char* unreadable = reinterpret_cast<const char*>(alignof(std::max_align_t));
  std::string out = CapturedStdout([unreadable] {
    Log_Level(LOG_LEVEL_INFO, "%s\n", unreadable);
    Log_Level(LOG_LEVEL_DEBUG, "%s\n", unreadable);
    Log_Level(LOG_LEVEL_WARNING, "still %s\n", "written");
  });
  EXPECT_EQ(out, "orvane: still written\n");
  // Raising the standard-error copy's level makes the same message written.
  Log_SetStderrLevel(LOG_LEVEL_INFO, 0xFFFFFFFF);
  std::string err = CapturedStderr([] { Log_Level(LOG_LEVEL_INFO, "now %s\n", "taken"); });
  EXPECT_THAT(err, HasSubstr("orvane: now taken\n"));
}

TEST_F(LogTest, UnknownThresholdNameGivesNoChannel) {
  EXPECT_EQ(NewStdio("loud", true, true), nullptr);
}

TEST_F(LogTest, ClosedStandardOutputGivesNoChannel) {
  int saved = dup(STDOUT_FILENO);
  ASSERT_GE(saved, 0);
  close(STDOUT_FILENO);
  LogOutput* output = NewStdio("info", true, true);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  EXPECT_EQ(output, nullptr);
}

TEST_F(LogTest, AddingNothingOrTheSameOutputTwiceFails) {
  EXPECT_FALSE(Log_AddOutput(nullptr));
  LogOutput* output = NewStdio("info", false, false);
  ASSERT_TRUE(Log_AddOutput(output));
  EXPECT_FALSE(Log_AddOutput(output));
  // The output stays added once: a message appears once.
  EXPECT_EQ(CapturedStdout([] { Log_Level(5, "once\n"); }), "orvane: once\n");
}

TEST_F(LogTest, StderrLevelCopiesMessagesAtOrBelowIt) {
  AddStdio("info");
  Log_SetStderrLevel(3, 0xFFFFFFFF);
  std::string err = CapturedStderr([] {
    CapturedStdout([] {
      Log_Level(3, "warned\n");
      Log_Level(5, "informed\n");
    });
  });
  EXPECT_THAT(err, HasSubstr("orvane: warned\n"));
  EXPECT_THAT(err, Not(HasSubstr("informed")));
}

TEST_F(LogTest, StderrLevelZeroCopiesNothingOrvaneLogs) {
  AddStdio("info");
  Log_SetStderrLevel(0, 0xFFFFFFFF);
  std::string err = CapturedStderr([] { CapturedStdout([] { Log_Level(2, "error\n"); }); });
  EXPECT_EQ(err, "");
}

TEST_F(LogTest, SyslogSetUpRefusesAnEmptyIdentOrAnUnknownThreshold) {
  EXPECT_FALSE(Log_InitWithSyslogInt("", settings_));
  Dict_SetString(settings_, "log.syslogLevel", "chatty");
  EXPECT_FALSE(Log_InitWithSyslogInt("orvane", settings_));
}

TEST_F(LogTest, ProductInfoIsRecorded) {
  Log_SetProductInfo("orvane", "0.1.0", "build-7", "release");
  EXPECT_STREQ(Log_GetProductInfo(), "orvane 0.1.0 build-7 (release)");
}

}  // namespace

namespace {

// A child forked while another thread is in the middle of a message must
// still be able to log: the executor's child does so before it detaches.
TEST(LogForkTest, ChildForkedWhileAnotherThreadLogsCanLog) {
  Log_Exit();
  // Messages go to standard error before any output exists; keep the flood
  // of the logging thread out of the test's output.
  const int savedStderr = dup(STDERR_FILENO);
  const int devNull = open("/dev/null", O_WRONLY);
  ASSERT_GE(savedStderr, 0);
  ASSERT_GE(devNull, 0);
  dup2(devNull, STDERR_FILENO);
  close(devNull);

  std::atomic<bool> stop{false};
  std::thread flood([&stop] {
    while (!stop) Log_Level(5, "flooding the log from another thread\n");
  });
  int hungChildren = 0;
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(1);  // a child that hangs on the library's mutex dies of SIGALRM
      Log_Level(2, "the child logs\n");
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++hungChildren;
  }
  stop = true;
  flood.join();
  dup2(savedStderr, STDERR_FILENO);
  close(savedStderr);
  EXPECT_EQ(hungChildren, 0);
}

}  // namespace
