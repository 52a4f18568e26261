/// orvane-analyze aggregate: per plugin, how long it takes and how often it
/// fails over many runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <unordered_map>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// One plugin name over all records, times in microseconds.
struct PluginStatistics {
  std::string name;
  std::string kind;               ///< as the last record that has it says
  std::size_t count = 0;          ///< finished activations
  std::size_t failed = 0;         ///< of which failed
  std::int64_t median = 0;        ///< the middle time; of an even count, the mean of the middle two
  std::int64_t percentile95 = 0;  ///< the nearest-rank 95th percentile
  std::int64_t maximum = 0;
};

/// The finished activations of many records, gathered one record at a
/// time so that no more than one record is held at once.
class Aggregation {
 public:
  /// Adds the finished activations of @p record, by plugin name.
  void Add(const Record& record);

  /// The records added, as named.
  const std::vector<std::string>& Records() const { return records_; }

  /// The statistics of every plugin name with at least one finished
  /// activation, slowest median first (equal medians by name).
  std::vector<PluginStatistics> Statistics() const;

 private:
  struct Samples {
    std::string kind;
    std::vector<std::int64_t> times;
    std::size_t failed = 0;
  };

  std::vector<std::string> records_;
  std::unordered_map<std::string, Samples> byName_;
};

/// Writes the statistics of @p aggregation as a table or as JSON.
void WriteAggregate(const Aggregation& aggregation, bool json, std::ostream& out);

}  // namespace orvane::analyze
