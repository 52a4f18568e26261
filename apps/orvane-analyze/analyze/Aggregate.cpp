#include "analyze/Aggregate.h"

#include <algorithm>
#include <boost/json.hpp>
#include <ostream>

#include "analyze/Formatting.h"

namespace orvane::analyze {
namespace {

PluginStatistics Summarise(const std::string& name, const std::string& kind,
                           std::vector<std::int64_t> times, std::size_t failed) {
  std::sort(times.begin(), times.end());
  const std::size_t count = times.size();
  PluginStatistics statistics;
  statistics.name = name;
  statistics.kind = kind;
  statistics.count = count;
  statistics.failed = failed;
  statistics.median =
      count % 2 == 1 ? times[count / 2] : (times[count / 2 - 1] + times[count / 2]) / 2;
  // Nearest rank: the smallest time that at least 95% of the times do not exceed.
  const std::size_t rank = (95 * count + 99) / 100;
  statistics.percentile95 = times[std::max<std::size_t>(rank, 1) - 1];
  statistics.maximum = times.back();
  return statistics;
}

std::string FailedText(const PluginStatistics& statistics) {
  if (statistics.failed == 0) {
    return "0";
  }
  const std::size_t percent = (100 * statistics.failed + statistics.count / 2) / statistics.count;
  return std::to_string(statistics.failed) + " (" + std::to_string(percent) + "%)";
}

void WriteText(const std::vector<std::string>& records,
               const std::vector<PluginStatistics>& plugins, std::ostream& out) {
  out << records.size() << " record" << (records.size() == 1 ? "" : "s") << ", " << plugins.size()
      << " plugin" << (plugins.size() == 1 ? "" : "s") << " with a finished activation\n";
  if (plugins.empty()) {
    return;
  }
  out << '\n';
  std::vector<std::vector<std::string>> rows;
  rows.reserve(plugins.size());
  const std::vector<std::string> heading = {"count", "median", "p95", "max", "failed"};
  std::vector<std::size_t> widths;
  widths.reserve(heading.size());
  for (const std::string& title : heading) {
    widths.push_back(DisplayWidth(title));
  }
  for (const PluginStatistics& statistics : plugins) {
    rows.push_back({std::to_string(statistics.count), FormatDuration(statistics.median),
                    FormatDuration(statistics.percentile95), FormatDuration(statistics.maximum),
                    FailedText(statistics)});
    for (std::size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], DisplayWidth(rows.back()[column]));
    }
  }
  for (std::size_t column = 0; column < heading.size(); ++column) {
    out << PadLeft(heading[column], widths[column]) << "  ";
  }
  out << "plugin\n";
  for (std::size_t row = 0; row < rows.size(); ++row) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      out << PadLeft(rows[row][column], widths[column]) << "  ";
    }
    out << FitWidth(TerminalText(plugins[row].name), kNameColumnWidth) << '\n';
  }
}

void WriteJsonReport(const std::vector<std::string>& records,
                     const std::vector<PluginStatistics>& plugins, std::ostream& out) {
  boost::json::array files;
  for (const std::string& record : records) {
    files.push_back(boost::json::value(ValidUtf8(record)));
  }
  boost::json::array entries;
  entries.reserve(plugins.size());
  for (const PluginStatistics& statistics : plugins) {
    entries.push_back({{"name", ValidUtf8(statistics.name)},
                       {"kind", ValidUtf8(statistics.kind)},
                       {"count", statistics.count},
                       {"median", statistics.median},
                       {"p95", statistics.percentile95},
                       {"max", statistics.maximum},
                       {"failed", statistics.failed}});
  }
  WriteJson(boost::json::object{{"records", std::move(files)}, {"plugins", std::move(entries)}},
            out);
}

}  // namespace

void Aggregation::Add(const Record& record) {
  records_.push_back(record.path);
  for (const Vertex& plugin : record.vertices) {
    const std::optional<std::int64_t> time = plugin.ActivationTime();
    if (!plugin.isPlugin || !time) {
      continue;
    }
    Samples& samples = byName_[plugin.name];
    samples.kind = plugin.kind;
    samples.times.push_back(*time);
    samples.failed += plugin.outcome == "failed" ? 1 : 0;
  }
}

std::vector<PluginStatistics> Aggregation::Statistics() const {
  std::vector<PluginStatistics> plugins;
  plugins.reserve(byName_.size());
  for (const auto& [name, samples] : byName_) {
    plugins.push_back(Summarise(name, samples.kind, samples.times, samples.failed));
  }
  std::sort(plugins.begin(), plugins.end(),
            [](const PluginStatistics& left, const PluginStatistics& right) {
              if (left.median != right.median) {
                return left.median > right.median;
              }
              return left.name < right.name;
            });
  return plugins;
}

void WriteAggregate(const Aggregation& aggregation, bool json, std::ostream& out) {
  const std::vector<PluginStatistics> plugins = aggregation.Statistics();
  if (json) {
    WriteJsonReport(aggregation.Records(), plugins, out);
  } else {
    WriteText(aggregation.Records(), plugins, out);
  }
}

}  // namespace orvane::analyze
