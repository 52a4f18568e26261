// What the tests of the run record share with those that read it back: a
// plugin whose start does what the test sets, and a fixture with a graph,
// its load log, the run's options and state, and a record in a temporary
// directory.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "GraphTestSupport.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/RunRecord.h"
#include "orvaner/run/RunState.h"

namespace orvane::testing {

/// A plugin with Plugin's own activation, whose start does what a test sets.
class ScriptedPlugin : public Plugin {
 public:
  explicit ScriptedPlugin(std::string name) : Plugin(std::move(name)) {}
  std::function<void()> onStart = [] {};
  void Start() override { onStart(); }
  bool SupportsHostProfile() const override { return false; }
  void ApplyHostProfile() override {}
};

/// A plain run started at 2025-11-24 16:00:00.123456 UTC on two workers,
/// its record written under directory_.
class RecordedRunTest : public GraphTest {
 protected:
  void SetUp() override {
    GraphTest::SetUp();
    state_.startTime = {1764000000, 123456};
    state_.startMonotonic = std::chrono::steady_clock::now();
    options_.threadCount = 2;
    options_.parallel = true;
  }

  /// Adds a plugin of /plugins/NAME.json linked to its barriers.
  ScriptedPlugin& Add(const std::string& name, const std::vector<std::string>& required,
                      const std::vector<std::string>& provided) {
    auto plugin = std::make_unique<ScriptedPlugin>(name);
    for (const std::string& barrier : required) {
      plugin->Requires(*registry_.GetBarrier(barrier, true));
    }
    for (const std::string& barrier : provided) {
      plugin->Provides(*registry_.GetBarrier(barrier, true));
    }
    ScriptedPlugin& added = *plugin;
    plugins_.Append(std::move(plugin), "/plugins/" + name + ".json");
    return added;
  }

  void OpenRecord() {
    record_.Open(options_, state_, plugins_, registry_.ListBarriers(), directory_.Path().string());
  }

  /// One start pass on two workers, reported to the record.
  void Pass() {
    Executor executor(2, false);
    executor.SetObserver(&record_);
    for (Plugin* plugin : plugins_.List()) plugin->ScheduleStart(executor);
    for (Plugin* plugin : plugins_.List()) plugin->WaitStarted();
  }

  unit_testing::ScopedAlertLogSink silencedAlertLog_{[](const std::string&) {}};
  unit_testing::TemporaryDirectory directory_;
  BarrierRegistry registry_;
  LoadedPlugins plugins_;
  RunOptions options_;
  RunState state_;
  RunRecord record_;
};

}  // namespace orvane::testing
