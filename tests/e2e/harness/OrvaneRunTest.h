// The base of the end-to-end tests that run the installed orvane: a fresh
// sandbox per test, a run helper, and readers for what a run leaves behind
// (the file injections and commands record into, the kernel log, syslog).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {

/// Installs the test command definitions into @p sandbox: "test record
/// --text X" appends X as a line to /tmp/record, "test fail" runs
/// /bin/false.
inline void InstallRecordingCommands(Sandbox& sandbox) {
  sandbox.WriteFile("/usr/local/bin/recordargs",
                    "#!/bin/sh\nprintf '%s\\n' \"$*\" >> /tmp/record\n", 0755);
  sandbox.WriteFile("/usr/lib/talvek/qorcli/test.json", R"({
  "commands": [
    {"path": ["test", "record"], "parameters": [{"name": "text", "required": true}],
     "exec": ["/usr/local/bin/recordargs", "{text}"]},
    {"path": ["test", "fail"], "exec": ["/bin/false"]}
  ]
})");
}

class OrvaneRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ORVANE_REQUIRE_SANDBOX();
    sandbox_ = std::make_unique<Sandbox>();
  }

  /// Runs orvane with @p options; expects it to end by itself and keeps the
  /// messages it logged on standard output in messages_.
  RunResult Orvane(std::vector<std::string> options, const RunSettings& settings = {}) {
    options.insert(options.begin(), kOrvane);
    RunResult result = sandbox_->Run(options, settings);
    EXPECT_FALSE(result.timedOut);
    messages_ = LogMessages(result.out);
    return result;
  }

  /// What was recorded into kRecord, in order.
  std::vector<std::string> Recorded() {
    return sandbox_->Exists(kRecord) ? Lines(sandbox_->ReadFile(kRecord))
                                     : std::vector<std::string>{};
  }

  /// The kernel-log records, the informational ones without their
  /// "<6>orvane: " prefix.
  std::vector<std::string> KernelLog() {
    std::vector<std::string> records;
    for (const std::string& line : Lines(sandbox_->Kmsg())) {
      records.push_back(line.starts_with("<6>orvane: ") ? line.substr(11) : line);
    }
    return records;
  }

  /// The activation lines of the kernel log, in order.
  std::vector<std::string> Activations() {
    std::vector<std::string> activations;
    for (const std::string& record : KernelLog()) {
      if (record.find("Orvane plugin") != std::string::npos) activations.push_back(record);
    }
    return activations;
  }

  /// Whether orvane's ident sent @p message at @p severity to syslog.
  bool SyslogHas(int severity, const std::string& message) {
    for (const SyslogRecord& record : sandbox_->Syslog()) {
      std::string text = record.message;
      if (text.ends_with('\n')) text.pop_back();
      if (record.ident == "orvane" && record.severity == severity && text == message) return true;
    }
    return false;
  }

  std::unique_ptr<Sandbox> sandbox_;
  std::vector<std::string> messages_;
};

}  // namespace orvane::testing
