// Vertices and plugins for the graph's unit tests: they record when they
// run instead of doing boot work.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "TestSeams.h"
#include "log/Log.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/Node.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane::testing {

/// The names of the vertices in the order their actions ran.
class RunLog {
 public:
  void Add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> Entries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> entries_;
};

/// A plugin whose start, forward action and reverse action only record.
class RecordingPlugin : public Plugin {
 public:
  RecordingPlugin(std::string name, RunLog& log) : Plugin(std::move(name)), log_(log) {}
  RecordingPlugin(std::string name, RunLog& log, std::uint32_t schedulingClass)
      : Plugin(std::move(name), schedulingClass), log_(log) {}

  void Execute(Executor&) override { log_.Add(Name()); }
  void ExecuteReverse(Executor&) override { log_.Add("stop " + Name()); }
  bool HasReverseAction() const override { return true; }
  void Start() override { log_.Add("start " + Name()); }
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override { log_.Add("profile " + Name()); }

  using Plugin::endTime;
  using Plugin::startTime;

 private:
  RunLog& log_;
};

/// A recording plugin that runs after every ordinary plugin that is ready,
/// as an init-script daemon does.
class RecordingDaemon : public RecordingPlugin {
 public:
  RecordingDaemon(std::string name, RunLog& log)
      : RecordingPlugin(std::move(name), log, kLegacyDaemonSchedulingClass) {}
};

/// Silences the system alert and resets the logging library, so that log
/// lines go to standard error where a test can capture them.
class GraphTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    RunOptions::Instance().invoke = false;
  }
  void TearDown() override { RunOptions::Instance().invoke = false; }

  std::vector<std::string> alerts;
  unit_testing::ScopedSystemAlertSink alertSink{
      [this](const std::string& text) { alerts.push_back(text); }};
  RunLog runLog;
};

}  // namespace orvane::testing
