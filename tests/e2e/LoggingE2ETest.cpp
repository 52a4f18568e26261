// The logging library and the alert paths on the sandboxed host's real
// /dev/kmsg and /dev/log paths, driven by the logprobe program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <regex>
#include <string>

#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kProbe = "/usr/local/bin/logprobe";

/// A sandbox with the probe installed.
class LoggingE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
    sandbox_->CopyIn(ORVANE_LOGPROBE, kProbe);
  }

  RunResult Probe(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kProbe);
    RunResult result = sandbox_->Run(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result;
  }

  /// The records that orvane's identifier sent, as (severity, message).
  std::vector<std::pair<int, std::string>> OrvaneSyslog() {
    std::vector<std::pair<int, std::string>> records;
    for (const SyslogRecord& record : sandbox_->Syslog()) {
      if (record.ident == "orvane") {
        records.emplace_back(record.severity, record.message);
      }
    }
    return records;
  }

  std::unique_ptr<Sandbox> sandbox_;
};

/// What syslog gets when an alert cannot reach the kernel log: why, then the
/// alert itself, both at error priority.
std::vector<std::pair<int, std::string>> AlertFallback(const std::string& openError,
                                                       const std::string& alert) {
  return {{LOG_ERR, "Exception occurred while logging msg: unable to open /dev/kmsg: " + openError},
          {LOG_ERR, alert}};
}

TEST_F(LoggingE2E, MessageReachesStandardOutputAndSyslogWithIdentOrvane) {
  RunResult result = Probe({"log", "5", "Launching Executor"});
  EXPECT_TRUE(std::regex_match(
      result.out,
      std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z orvane: Launching Executor\n)")))
      << result.out;
  std::vector<SyslogRecord> records = sandbox_->Syslog();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].ident, "orvane");
  EXPECT_GT(records[0].pid, 0);
  EXPECT_EQ(records[0].facility, LOG_DAEMON >> 3);
  EXPECT_EQ(records[0].severity, LOG_INFO);
  EXPECT_EQ(records[0].message, "Launching Executor");
}

TEST_F(LoggingE2E, NumericLevelsMapToSyslogSeverities) {
  Probe({"log", "2", "an error"});
  Probe({"log", "3", "a warning"});
  Probe({"log", "5", "progress"});
  Probe({"log", "6", "too chatty for info"});
  EXPECT_THAT(OrvaneSyslog(), ElementsAre(std::pair{LOG_ERR, std::string("an error")},
                                          std::pair{LOG_WARNING, std::string("a warning")},
                                          std::pair{LOG_INFO, std::string("progress")}));
}

TEST_F(LoggingE2E, AlertGoesToTheKernelLog) {
  Probe({"alert", "Activating Orvane plugin foo."});
  Probe({"alert", "Orvane plugin foo activated."});
  EXPECT_EQ(sandbox_->Kmsg(),
            "<6>orvane: Activating Orvane plugin foo.\n"
            "<6>orvane: Orvane plugin foo activated.\n");
  EXPECT_THAT(OrvaneSyslog(), IsEmpty());
}

TEST_F(LoggingE2E, AlertFallsBackToSyslogWhenTheKernelLogIsMissing) {
  sandbox_->Remove("/dev/kmsg");
  Probe({"alert", "Activating Orvane plugin foo."});
  EXPECT_EQ(OrvaneSyslog(),
            AlertFallback("No such file or directory", "Activating Orvane plugin foo."));
}

TEST_F(LoggingE2E, AlertFallsBackToSyslogWhenTheKernelLogCannotBeWritten) {
  sandbox_->Remove("/dev/kmsg");
  sandbox_->MakeDirectory("/dev/kmsg");
  Probe({"alert", "Orvane plugin bar activated."});
  EXPECT_EQ(OrvaneSyslog(), AlertFallback("Is a directory", "Orvane plugin bar activated."));
}

TEST_F(LoggingE2E, AlertKeepsPercentSignsOfTheMessage) {
  Probe({"alert", "plugin 100% done %s"});
  EXPECT_EQ(sandbox_->Kmsg(), "<6>orvane: plugin 100% done %s\n");
}

TEST_F(LoggingE2E, SystemAlertReachesTheKernelLogAndSyslogAtAlertPriority) {
  Probe({"system-alert", "Plugin foo is broken"});
  EXPECT_EQ(sandbox_->Kmsg(), "<1>orvane: Plugin foo is broken\n");
  EXPECT_THAT(OrvaneSyslog(),
              ElementsAre(std::pair{LOG_ALERT, std::string("Plugin foo is broken")}));
}

TEST_F(LoggingE2E, SystemAlertWithoutAKernelLogStillReachesSyslog) {
  sandbox_->Remove("/dev/kmsg");
  Probe({"system-alert", "Plugin foo is broken"});
  EXPECT_THAT(
      OrvaneSyslog(),
      ElementsAre(
          std::pair{LOG_ALERT, std::string("Plugin foo is broken")},
          std::pair{LOG_ERR, std::string("unable to raise system alert in the kernel log: "
                                         "unable to open /dev/kmsg: No such file or directory")}));
}

}  // namespace
}  // namespace orvane::testing
