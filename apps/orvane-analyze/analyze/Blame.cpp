#include "analyze/Blame.h"

#include <algorithm>
#include <boost/json.hpp>
#include <ostream>

#include "analyze/Formatting.h"

namespace orvane::analyze {
namespace {

void WriteText(const Record& record, const std::vector<BlameEntry>& entries, std::ostream& out) {
  if (entries.empty()) {
    out << "No plugin has started.\n";
    return;
  }
  std::vector<std::string> times;
  std::vector<std::string> names;
  std::size_t timeWidth = DisplayWidth("time");
  std::size_t nameWidth = DisplayWidth("plugin");
  std::size_t kindWidth = DisplayWidth("kind");
  for (const BlameEntry& entry : entries) {
    const Vertex& plugin = record.vertices[entry.vertex];
    times.push_back(FormatDuration(entry.microseconds));
    names.push_back(FitWidth(TerminalText(plugin.name), kNameColumnWidth));
    timeWidth = std::max(timeWidth, DisplayWidth(times.back()));
    nameWidth = std::max(nameWidth, DisplayWidth(names.back()));
    kindWidth = std::max(kindWidth, DisplayWidth(plugin.kind));
  }
  out << PadLeft("time", timeWidth) << "  " << PadRight("plugin", nameWidth) << "  "
      << PadRight("kind", kindWidth) << "  outcome\n";
  for (std::size_t row = 0; row < entries.size(); ++row) {
    const Vertex& plugin = record.vertices[entries[row].vertex];
    out << PadLeft(times[row], timeWidth) << "  " << PadRight(names[row], nameWidth) << "  "
        << PadRight(TerminalText(plugin.kind), kindWidth) << "  " << entries[row].outcome << '\n';
  }
}

void WriteJsonReport(const Record& record, const std::vector<BlameEntry>& entries,
                     std::ostream& out) {
  boost::json::array plugins;
  plugins.reserve(entries.size());
  for (const BlameEntry& entry : entries) {
    const Vertex& plugin = record.vertices[entry.vertex];
    boost::json::object line;
    line["name"] = ValidUtf8(plugin.name);
    line["kind"] = ValidUtf8(plugin.kind);
    line["outcome"] = entry.outcome;
    line["microseconds"] = entry.microseconds;
    line["start"] = plugin.start->t;
    line["worker"] = plugin.start->worker;
    if (!plugin.reason.empty()) {
      line["reason"] = ValidUtf8(plugin.reason);
    }
    plugins.push_back(std::move(line));
  }
  WriteJson(
      boost::json::object{{"record", ValidUtf8(record.path)}, {"plugins", std::move(plugins)}},
      out);
}

}  // namespace

std::vector<BlameEntry> Blame(const Record& record) {
  std::vector<BlameEntry> entries;
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    const Vertex& vertex = record.vertices[index];
    if (!vertex.isPlugin || !vertex.start) {
      continue;
    }
    BlameEntry entry{index, 0, vertex.outcome};
    if (vertex.finish) {
      entry.microseconds = vertex.finish->t - vertex.start->t;
    } else {
      entry.microseconds = std::max<std::int64_t>(0, record.Duration() - vertex.start->t);
      entry.outcome = record.Live() ? "running" : "unfinished";
    }
    entries.push_back(std::move(entry));
  }
  std::sort(entries.begin(), entries.end(), [&](const BlameEntry& left, const BlameEntry& right) {
    if (left.microseconds != right.microseconds) {
      return left.microseconds > right.microseconds;
    }
    return record.vertices[left.vertex].start->line < record.vertices[right.vertex].start->line;
  });
  return entries;
}

void WriteBlame(const Record& record, bool json, std::ostream& out) {
  const std::vector<BlameEntry> entries = Blame(record);
  if (json) {
    WriteJsonReport(record, entries, out);
  } else {
    WriteText(record, entries, out);
  }
}

}  // namespace orvane::analyze
