#include <gtest/gtest.h>
#include <unistd.h>

#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/Logging.h"

namespace orvane {
namespace {

std::string InitLoggingFailure(const char* identifier) {
  try {
    InitLogging(identifier);
  } catch (const Exception& error) {
    return error.what();
  }
  return "";
}

class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override { Log_Exit(); }
  void TearDown() override { Log_Exit(); }
};

TEST_F(LoggingTest, SyslogThatCannotBeSetUpThrowsItsMessage) {
  EXPECT_EQ(InitLoggingFailure(""), "Failed to initialize logging to syslog.\n");
}

TEST_F(LoggingTest, ClosedStandardOutputThrowsTheChannelMessage) {
  int saved = dup(STDOUT_FILENO);
  ASSERT_GE(saved, 0);
  close(STDOUT_FILENO);
  std::string failure = InitLoggingFailure("orvane");
  dup2(saved, STDOUT_FILENO);
  close(saved);
  EXPECT_EQ(failure, "Failed creating standard out logging interface.\n");
}

}  // namespace
}  // namespace orvane
