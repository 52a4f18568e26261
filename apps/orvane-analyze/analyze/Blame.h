/// orvane-analyze blame: the plugins of a run by activation time, longest
/// first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// One plugin's activation as blame shows it.
struct BlameEntry {
  std::size_t vertex = 0;  ///< index into Record::vertices
  std::int64_t microseconds = 0;
  /// activated, failed or skipped; "running" for an activation a live
  /// record has not finished, "unfinished" for one an ended record never did.
  std::string outcome;
};

/// Every plugin that started, longest activation first (equal times in
/// start order). An activation not finished counts until the record's
/// last event.
std::vector<BlameEntry> Blame(const Record& record);

/// Writes Blame as a table of time, name, kind and outcome, or as JSON.
void WriteBlame(const Record& record, bool json, std::ostream& out);

}  // namespace orvane::analyze
