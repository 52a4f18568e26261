/// The values of a run that only main holds.
#pragma once

#include <sys/time.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "orvane/FixedPaths.h"

namespace orvane {

/// What main keeps for itself: the run mode, the plugin selection from the
/// command line, and the run's clock readings.
struct RunState {
  bool init = false;
  bool daemon = false;
  bool dump = false;
  std::optional<std::string> dumpPath;                    ///< only from --dump-dependency-tree=path
  std::string pluginDirectory = paths::kPluginDirectory;  ///< as given
  std::vector<std::string> pluginList;                    ///< --plugin, in order, repeats kept
  std::set<std::string> pluginFlags;
  std::set<std::string> runOnce;  ///< --run-once keys; enumeration looks plugins up and adds keys
  timeval startTime{};
  std::chrono::steady_clock::time_point startMonotonic;  ///< read with startTime
  timeval endTime{};
  long kernelUptimeSeconds = 0;
};

}  // namespace orvane
