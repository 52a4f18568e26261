/// orvane-analyze compare: what changed between two runs, in total and per
/// plugin, largest regression first.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// A plugin as one of the two runs had it.
struct ComparedSide {
  std::optional<std::int64_t> microseconds;  ///< its activation time, when it finished
  /// activated, failed or skipped; "not run" for a plugin already run or
  /// never started, "unfinished" for one that never finished.
  std::string outcome;
};

/// One plugin in both runs or one of them. Plugins are matched by name;
/// the n-th plugin of a name in one run with the n-th of that name in the other.
struct PluginChange {
  std::string name;
  std::string kind;
  std::optional<ComparedSide> before;  ///< none: it appeared
  std::optional<ComparedSide> after;   ///< none: it disappeared
  /// after - before; a plugin that appeared counts its whole time, one that
  /// disappeared minus its whole time; a missing time counts as 0.
  std::int64_t change = 0;
  bool OutcomeChanged() const { return before && after && before->outcome != after->outcome; }
};

/// Every plugin of @p before and @p after, largest regression (change)
/// first; equal changes by name.
std::vector<PluginChange> ComparePlugins(const Record& before, const Record& after);

/// Writes the two runs' totals and their difference, then the plugins; a
/// plugin whose time changed by less than @p thresholdMicroseconds (either
/// way) is left out unless it appeared, disappeared or changed outcome.
void WriteCompare(const Record& before, const Record& after, std::int64_t thresholdMicroseconds,
                  bool json, std::ostream& out);

}  // namespace orvane::analyze
