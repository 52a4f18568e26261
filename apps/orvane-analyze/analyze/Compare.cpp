#include "analyze/Compare.h"

#include <algorithm>
#include <boost/json.hpp>
#include <ostream>
#include <unordered_map>

#include "analyze/Formatting.h"

namespace orvane::analyze {
namespace {

using PluginsByName = std::unordered_map<std::string, std::vector<std::size_t>>;

PluginsByName GroupByName(const Record& record) {
  PluginsByName groups;
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    if (record.vertices[index].isPlugin) {
      groups[record.vertices[index].name].push_back(index);
    }
  }
  return groups;
}

ComparedSide SideOf(const Vertex& plugin) {
  ComparedSide side;
  side.microseconds = plugin.ActivationTime();
  if (plugin.finish) {
    side.outcome = plugin.outcome;
  } else if (plugin.start) {
    side.outcome = "unfinished";
  } else {
    side.outcome = "not run";
  }
  return side;
}

std::string Note(const PluginChange& change) {
  if (!change.before) {
    return "appeared";
  }
  if (!change.after) {
    return "disappeared";
  }
  if (change.OutcomeChanged()) {
    return change.before->outcome + " -> " + change.after->outcome;
  }
  return {};
}

bool Shown(const PluginChange& change, std::int64_t threshold) {
  const std::int64_t size = change.change < 0 ? -change.change : change.change;
  return size >= threshold || !Note(change).empty();
}

/// "old.jsonl: plain run of 2026-11-24T15:14:00.123456Z, 12.000ms, status 0"
std::string Summary(const Record& record) {
  std::string summary = TerminalText(record.path) + ": " + TerminalText(record.header.mode) +
                        " run of " + TerminalText(record.header.start) + ", " +
                        FormatDuration(record.Duration());
  if (record.end) {
    summary += ", status " + std::to_string(record.end->status);
  } else {
    summary += " so far, not ended";
  }
  return summary;
}

std::string SideTime(const std::optional<ComparedSide>& side) {
  return side && side->microseconds ? FormatDuration(*side->microseconds) : "-";
}

void WriteTable(const std::vector<const PluginChange*>& shown, std::ostream& out) {
  std::size_t changeWidth = DisplayWidth("change");
  std::size_t oldWidth = DisplayWidth("old");
  std::size_t newWidth = DisplayWidth("new");
  std::size_t nameWidth = DisplayWidth("plugin");
  for (const PluginChange* change : shown) {
    changeWidth = std::max(changeWidth, DisplayWidth(FormatChange(change->change)));
    oldWidth = std::max(oldWidth, DisplayWidth(SideTime(change->before)));
    newWidth = std::max(newWidth, DisplayWidth(SideTime(change->after)));
    nameWidth =
        std::max(nameWidth, DisplayWidth(FitWidth(TerminalText(change->name), kNameColumnWidth)));
  }
  out << PadLeft("change", changeWidth) << "  " << PadLeft("old", oldWidth) << "  "
      << PadLeft("new", newWidth) << "  " << PadRight("plugin", nameWidth) << "  note\n";
  for (const PluginChange* change : shown) {
    const std::string line =
        PadLeft(FormatChange(change->change), changeWidth) + "  " +
        PadLeft(SideTime(change->before), oldWidth) + "  " +
        PadLeft(SideTime(change->after), newWidth) + "  " +
        PadRight(FitWidth(TerminalText(change->name), kNameColumnWidth), nameWidth) + "  " +
        Note(*change);
    // No trailing blanks where a row has no note.
    out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
  }
}

void WriteText(const Record& before, const Record& after, const std::vector<PluginChange>& changes,
               std::int64_t threshold, std::ostream& out) {
  out << "old: " << Summary(before) << '\n'
      << "new: " << Summary(after) << '\n'
      << "total: " << FormatDuration(before.Duration()) << " -> "
      << FormatDuration(after.Duration()) << " ("
      << FormatChange(after.Duration() - before.Duration()) << ")\n\n";
  std::vector<const PluginChange*> shown;
  for (const PluginChange& change : changes) {
    if (Shown(change, threshold)) {
      shown.push_back(&change);
    }
  }
  const std::size_t hidden = changes.size() - shown.size();
  if (shown.empty()) {
    if (hidden == 0) {
      out << "Neither run has a plugin.\n";
    } else {
      out << "No plugin changed by " << FormatDuration(threshold) << " or more (" << hidden
          << " changed less).\n";
    }
    return;
  }
  WriteTable(shown, out);
  if (hidden > 0) {
    out << '\n'
        << hidden << " plugin" << (hidden == 1 ? "" : "s") << " changed by less than "
        << FormatDuration(threshold) << ": not shown\n";
  }
}

boost::json::value SideJson(const std::optional<ComparedSide>& side) {
  if (!side) {
    return nullptr;
  }
  return boost::json::object{
      {"microseconds", side->microseconds ? boost::json::value(*side->microseconds) : nullptr},
      {"outcome", side->outcome}};
}

boost::json::object RunJson(const Record& record) {
  return {{"record", ValidUtf8(record.path)},
          {"start", ValidUtf8(record.header.start)},
          {"microseconds", record.Duration()},
          {"status", record.end ? boost::json::value(record.end->status) : nullptr}};
}

void WriteJsonReport(const Record& before, const Record& after,
                     const std::vector<PluginChange>& changes, std::int64_t threshold,
                     std::ostream& out) {
  boost::json::array plugins;
  std::size_t hidden = 0;
  for (const PluginChange& change : changes) {
    if (!Shown(change, threshold)) {
      ++hidden;
      continue;
    }
    const std::string note = Note(change);
    plugins.push_back(
        {{"name", ValidUtf8(change.name)},
         {"kind", ValidUtf8(change.kind)},
         {"old", SideJson(change.before)},
         {"new", SideJson(change.after)},
         {"change", change.change},
         {"note", note.empty() ? boost::json::value(nullptr) : boost::json::value(note)}});
  }
  WriteJson(boost::json::object{{"old", RunJson(before)},
                                {"new", RunJson(after)},
                                {"change", after.Duration() - before.Duration()},
                                {"thresholdMicroseconds", threshold},
                                {"plugins", std::move(plugins)},
                                {"hidden", hidden}},
            out);
}

}  // namespace

std::vector<PluginChange> ComparePlugins(const Record& before, const Record& after) {
  const PluginsByName beforeByName = GroupByName(before);
  const PluginsByName afterByName = GroupByName(after);
  std::vector<PluginChange> changes;
  const auto add = [&](const std::string& name, const Vertex* old, const Vertex* current) {
    PluginChange change;
    change.name = name;
    change.kind = current != nullptr ? current->kind : old->kind;
    if (old != nullptr) {
      change.before = SideOf(*old);
    }
    if (current != nullptr) {
      change.after = SideOf(*current);
    }
    const std::int64_t oldTime = change.before ? change.before->microseconds.value_or(0) : 0;
    const std::int64_t newTime = change.after ? change.after->microseconds.value_or(0) : 0;
    change.change = newTime - oldTime;
    changes.push_back(std::move(change));
  };
  for (const auto& [name, oldIndices] : beforeByName) {
    const auto found = afterByName.find(name);
    const std::size_t newCount = found == afterByName.end() ? 0 : found->second.size();
    for (std::size_t occurrence = 0; occurrence < std::max(oldIndices.size(), newCount);
         ++occurrence) {
      add(name, occurrence < oldIndices.size() ? &before.vertices[oldIndices[occurrence]] : nullptr,
          occurrence < newCount ? &after.vertices[found->second[occurrence]] : nullptr);
    }
  }
  for (const auto& [name, newIndices] : afterByName) {
    if (beforeByName.count(name) == 0) {
      for (const std::size_t index : newIndices) {
        add(name, nullptr, &after.vertices[index]);
      }
    }
  }
  std::sort(changes.begin(), changes.end(),
            [](const PluginChange& left, const PluginChange& right) {
              if (left.change != right.change) {
                return left.change > right.change;
              }
              return left.name < right.name;
            });
  return changes;
}

void WriteCompare(const Record& before, const Record& after, std::int64_t thresholdMicroseconds,
                  bool json, std::ostream& out) {
  const std::vector<PluginChange> changes = ComparePlugins(before, after);
  if (json) {
    WriteJsonReport(before, after, changes, thresholdMicroseconds, out);
  } else {
    WriteText(before, after, changes, thresholdMicroseconds, out);
  }
}

}  // namespace orvane::analyze
