#include "analyze/Status.h"

#include <algorithm>
#include <boost/json.hpp>
#include <ostream>
#include <string>
#include <utility>

#include "analyze/Formatting.h"

namespace orvane::analyze {
namespace {

bool Holds(const Vertex& vertex) {
  const VertexState state = vertex.State();
  return vertex.isPlugin && (state == VertexState::kRunning || state == VertexState::kQueued);
}

void Merge(Holders& into, const Holders& from) {
  into.more = into.more || from.more;
  for (const std::size_t plugin : from.plugins) {
    if (std::find(into.plugins.begin(), into.plugins.end(), plugin) != into.plugins.end()) {
      continue;
    }
    if (into.plugins.size() == kMostListed) {
      into.more = true;
      return;
    }
    into.plugins.push_back(plugin);
  }
}

/// The state of the run at one moment, and the words for it.
class RunClock {
 public:
  RunClock(const Record& record, std::int64_t nowMicroseconds)
      :  // Since the run's start: its own clock's record time against ours.
        elapsed_(
            std::max(nowMicroseconds - record.header.startMicroseconds, record.lastEventTime)) {}

  std::int64_t Elapsed() const { return elapsed_; }
  std::int64_t Since(std::int64_t t) const { return std::max<std::int64_t>(elapsed_ - t, 0); }

  /// "running 10.201s", "waiting for a worker 1.000s", "waiting", "ready".
  std::string Describe(const Vertex& vertex) const {
    switch (vertex.State()) {
      case VertexState::kRunning: return "running " + FormatDuration(Since(vertex.start->t));
      case VertexState::kQueued:
        return vertex.isPlugin ? "waiting for a worker " + FormatDuration(Since(vertex.ready->t))
                               : "ready";
      case VertexState::kWaiting: return "waiting";
      case VertexState::kDone: return "done";
    }
    return {};
  }

 private:
  std::int64_t elapsed_;
};

std::vector<std::size_t> PluginsIn(const Record& record, VertexState state) {
  std::vector<std::size_t> plugins;
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    if (record.vertices[index].isPlugin && record.vertices[index].State() == state) {
      plugins.push_back(index);
    }
  }
  return plugins;
}

std::vector<std::size_t> NotDone(const Record& record, const std::vector<std::size_t>& indices) {
  std::vector<std::size_t> pending;
  for (const std::size_t index : indices) {
    if (record.vertices[index].State() != VertexState::kDone) {
      pending.push_back(index);
    }
  }
  return pending;
}

std::string Label(const Vertex& vertex) {
  return TerminalText(vertex.name) + " (" +
         (vertex.isPlugin ? TerminalText(vertex.kind) : std::string("barrier")) + ")";
}

void WriteEnded(const Record& record, bool json, std::ostream& out) {
  if (json) {
    WriteJson(boost::json::object{{"record", ValidUtf8(record.path)},
                                  {"live", false},
                                  {"start", ValidUtf8(record.header.start)},
                                  {"end", ValidUtf8(record.end->end)},
                                  {"microseconds", record.end->t},
                                  {"status", record.end->status}},
              out);
    return;
  }
  out << "The " << TerminalText(record.header.mode) << " run of "
      << TerminalText(record.header.start) << " ended";
  if (!record.end->end.empty()) {
    out << " at " << TerminalText(record.end->end);
  }
  out << " after " << FormatDuration(record.end->t) << " with status " << record.end->status
      << ".\n";
}

class LiveReport {
 public:
  LiveReport(const Record& record, std::int64_t now)
      : record_(record),
        state_(record, now),
        holders_(FindHolders(record)),
        running_(PluginsIn(record, VertexState::kRunning)),
        queued_(PluginsIn(record, VertexState::kQueued)),
        waiting_(PluginsIn(record, VertexState::kWaiting)) {
    const auto byStart = [&](std::size_t left, std::size_t right) {
      return record.vertices[left].start->t < record.vertices[right].start->t;
    };
    std::stable_sort(running_.begin(), running_.end(), byStart);
  }

  void WriteText(std::ostream& out) const {
    const RecordHeader& header = record_.header;
    out << "The " << TerminalText(header.mode) << " run of " << TerminalText(header.start);
    if (!header.host.empty()) {
      out << " on " << TerminalText(header.host);
    }
    out << " (pid " << header.pid << ") has not ended: " << FormatDuration(state_.Elapsed())
        << " since its start.\n";
    WriteTimedPlugins("Running", running_, true, out);
    WriteTimedPlugins("Waiting for a free worker", queued_, false, out);
    if (!waiting_.empty()) {
      out << "\nWaiting (" << waiting_.size() << "):\n";
      for (const std::size_t index : waiting_) {
        WriteWaiting(index, out);
      }
    }
    if (running_.empty() && queued_.empty() && waiting_.empty()) {
      out << "\nNo plugin is running or waiting.\n";
    }
  }

  void WriteJsonReport(std::ostream& out) const {
    const RecordHeader& header = record_.header;
    boost::json::array running;
    for (const std::size_t index : running_) {
      const Vertex& plugin = record_.vertices[index];
      running.push_back({{"name", ValidUtf8(plugin.name)},
                         {"kind", ValidUtf8(plugin.kind)},
                         {"worker", plugin.start->worker},
                         {"start", plugin.start->t},
                         {"runningFor", state_.Since(plugin.start->t)}});
    }
    boost::json::array queued;
    for (const std::size_t index : queued_) {
      const Vertex& plugin = record_.vertices[index];
      queued.push_back({{"name", ValidUtf8(plugin.name)},
                        {"kind", ValidUtf8(plugin.kind)},
                        {"ready", plugin.ready->t},
                        {"waitingFor", state_.Since(plugin.ready->t)}});
    }
    boost::json::array waiting;
    for (const std::size_t index : waiting_) {
      waiting.push_back(WaitingJson(index));
    }
    WriteJson(boost::json::object{{"record", ValidUtf8(record_.path)},
                                  {"live", true},
                                  {"start", ValidUtf8(header.start)},
                                  {"host", ValidUtf8(header.host)},
                                  {"mode", ValidUtf8(header.mode)},
                                  {"pid", header.pid},
                                  {"elapsed", state_.Elapsed()},
                                  {"running", std::move(running)},
                                  {"queued", std::move(queued)},
                                  {"waiting", std::move(waiting)}},
              out);
  }

 private:
  void WriteTimedPlugins(const std::string& title, const std::vector<std::size_t>& plugins,
                         bool sinceStart, std::ostream& out) const {
    if (plugins.empty()) {
      return;
    }
    out << '\n' << title << " (" << plugins.size() << "):\n";
    std::vector<std::string> times;
    std::size_t width = 0;
    for (const std::size_t index : plugins) {
      const Vertex& plugin = record_.vertices[index];
      times.push_back(FormatDuration(state_.Since(sinceStart ? plugin.start->t : plugin.ready->t)));
      width = std::max(width, DisplayWidth(times.back()));
    }
    for (std::size_t row = 0; row < plugins.size(); ++row) {
      const Vertex& plugin = record_.vertices[plugins[row]];
      out << "  " << PadLeft(times[row], width) << "  " << TerminalText(plugin.name) << " ("
          << TerminalText(plugin.kind);
      if (sinceStart) {
        out << ", worker " << plugin.start->worker;
      }
      out << ")\n";
    }
  }

  void WriteWaiting(std::size_t index, std::ostream& out) const {
    const Vertex& plugin = record_.vertices[index];
    out << "  " << Label(plugin) << '\n';
    for (const std::size_t awaited : NotDone(record_, plugin.required)) {
      const Vertex& vertex = record_.vertices[awaited];
      out << "    " << Label(vertex) << ": ";
      if (vertex.isPlugin) {
        out << state_.Describe(vertex) << '\n';
        continue;
      }
      const std::vector<std::size_t> providers = NotDone(record_, vertex.required);
      if (vertex.required.empty()) {
        out << "provided by nobody\n";
        continue;
      }
      if (providers.empty()) {
        out << state_.Describe(vertex) << ", every provider done\n";
        continue;
      }
      out << "provided by ";
      for (std::size_t position = 0; position < providers.size() && position < kMostListed;
           ++position) {
        const Vertex& provider = record_.vertices[providers[position]];
        out << (position == 0 ? "" : ", ") << Label(provider) << ' ' << state_.Describe(provider);
      }
      if (providers.size() > kMostListed) {
        out << " and " << providers.size() - kMostListed << " more";
      }
      out << '\n';
    }
    const Holders& holders = holders_[index];
    if (holders.plugins.empty()) {
      out << "    held by nothing running: a cycle, or a barrier nobody provides\n";
      return;
    }
    out << "    held by ";
    for (std::size_t position = 0; position < holders.plugins.size(); ++position) {
      const Vertex& holder = record_.vertices[holders.plugins[position]];
      out << (position == 0 ? "" : ", ") << TerminalText(holder.name) << ' '
          << state_.Describe(holder);
    }
    out << (holders.more ? " and more" : "") << '\n';
  }

  boost::json::object VertexJson(const Vertex& vertex) const {
    boost::json::object entry{{"name", ValidUtf8(vertex.name)},
                              {"type", vertex.isPlugin ? "plugin" : "barrier"},
                              {"kind", ValidUtf8(vertex.kind)}};
    switch (vertex.State()) {
      case VertexState::kRunning:
        entry["state"] = "running";
        entry["runningFor"] = state_.Since(vertex.start->t);
        break;
      case VertexState::kQueued: entry["state"] = vertex.isPlugin ? "queued" : "ready"; break;
      case VertexState::kWaiting: entry["state"] = "waiting"; break;
      case VertexState::kDone: entry["state"] = "done"; break;
    }
    return entry;
  }

  boost::json::object WaitingJson(std::size_t index) const {
    const Vertex& plugin = record_.vertices[index];
    boost::json::array waitsFor;
    for (const std::size_t awaited : NotDone(record_, plugin.required)) {
      const Vertex& vertex = record_.vertices[awaited];
      boost::json::object entry = VertexJson(vertex);
      if (!vertex.isPlugin) {
        const std::vector<std::size_t> providers = NotDone(record_, vertex.required);
        boost::json::array listed;
        for (std::size_t position = 0; position < providers.size() && position < kMostListed;
             ++position) {
          listed.push_back(VertexJson(record_.vertices[providers[position]]));
        }
        entry["providers"] = std::move(listed);
        entry["moreProviders"] =
            providers.size() > kMostListed ? providers.size() - kMostListed : 0;
        entry["providedByNobody"] = vertex.required.empty();
      }
      waitsFor.push_back(std::move(entry));
    }
    boost::json::array heldBy;
    for (const std::size_t holder : holders_[index].plugins) {
      heldBy.push_back(VertexJson(record_.vertices[holder]));
    }
    return {{"name", ValidUtf8(plugin.name)},
            {"kind", ValidUtf8(plugin.kind)},
            {"waitsFor", std::move(waitsFor)},
            {"heldBy", std::move(heldBy)},
            {"moreHolders", holders_[index].more}};
  }

  const Record& record_;
  RunClock state_;
  std::vector<Holders> holders_;
  std::vector<std::size_t> running_;
  std::vector<std::size_t> queued_;
  std::vector<std::size_t> waiting_;
};

}  // namespace

std::vector<Holders> FindHolders(const Record& record) {
  enum class Mark { kUnseen, kOpen, kClosed };
  const std::size_t count = record.vertices.size();
  std::vector<Holders> holders(count);
  std::vector<Mark> marks(count, Mark::kUnseen);
  // Depth first on an explicit stack: a wait may run through 100,000 vertices.
  std::vector<std::pair<std::size_t, std::size_t>> stack;  // vertex, next requirement
  for (std::size_t root = 0; root < count; ++root) {
    if (marks[root] != Mark::kUnseen || record.vertices[root].State() == VertexState::kDone) {
      continue;
    }
    marks[root] = Mark::kOpen;
    stack.emplace_back(root, 0);
    while (!stack.empty()) {
      auto& [index, next] = stack.back();
      const Vertex& vertex = record.vertices[index];
      if (Holds(vertex)) {
        holders[index].plugins = {index};
      } else if (next < vertex.required.size()) {
        const std::size_t awaited = vertex.required[next++];
        if (marks[awaited] == Mark::kUnseen &&
            record.vertices[awaited].State() != VertexState::kDone) {
          marks[awaited] = Mark::kOpen;
          stack.emplace_back(awaited, 0);
        }
        continue;
      } else {
        // An awaited vertex still open is on the stack: a cycle adds nothing.
        for (const std::size_t awaited : vertex.required) {
          if (marks[awaited] == Mark::kClosed) {
            Merge(holders[index], holders[awaited]);
          }
        }
      }
      marks[index] = Mark::kClosed;
      stack.pop_back();
    }
  }
  return holders;
}

void WriteStatus(const Record& record, std::int64_t nowMicroseconds, bool json, std::ostream& out) {
  if (!record.Live()) {
    WriteEnded(record, json, out);
    return;
  }
  const LiveReport report(record, nowMicroseconds);
  if (json) {
    report.WriteJsonReport(out);
  } else {
    report.WriteText(out);
  }
}

}  // namespace orvane::analyze
