#include "analyze/Trace.h"

#include <algorithm>
#include <boost/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "analyze/CriticalChain.h"
#include "analyze/Formatting.h"
#include "analyze/Plot.h"

namespace orvane::analyze {
namespace {

constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

/// Finds, for each plugin, the plugin that released it: walking back from
/// it through what each vertex waited for last, the first plugin that ran.
class Releasers {
 public:
  explicit Releasers(const Record& record)
      : record_(record),
        releaser_(record.vertices.size(), kNotFound),
        known_(record.vertices.size(), false) {}

  std::optional<std::size_t> Of(std::size_t plugin) {
    std::vector<std::size_t> walked;
    std::optional<std::size_t> current = WaitedForLast(record_, plugin);
    std::size_t found = kNotFound;
    while (current) {
      const Vertex& vertex = record_.vertices[*current];
      if (known_[*current]) {
        found = releaser_[*current];
        break;
      }
      if (vertex.isPlugin && vertex.start) {
        found = *current;
        break;
      }
      // A barrier, or a plugin already run: the release came from further back.
      known_[*current] = true;  // guards against a cycle while we walk
      walked.push_back(*current);
      current = WaitedForLast(record_, *current);
    }
    for (const std::size_t index : walked) {
      releaser_[index] = found;
    }
    return found == kNotFound ? std::nullopt : std::optional<std::size_t>(found);
  }

 private:
  const Record& record_;
  std::vector<std::size_t> releaser_;  ///< per barrier walked: the plugin that released it
  std::vector<bool> known_;
};

/// The lane of a thread: the worker's index, and one after the last
/// worker's for the main thread (-1 in the record), as trace viewers take
/// no negative thread ids.
class Lanes {
 public:
  explicit Lanes(const Record& record) {
    std::int64_t lastWorker = std::max<std::int64_t>(record.header.threads - 1, 0);
    for (const Vertex& vertex : record.vertices) {
      for (const std::optional<Moment>* moment : {&vertex.start, &vertex.finish, &vertex.done}) {
        if (*moment) {
          lastWorker = std::max(lastWorker, (*moment)->worker);
          used_.insert((*moment)->worker);
        }
      }
    }
    mainLane_ = lastWorker + 1;
  }
  std::int64_t Of(std::int64_t worker) const { return worker < 0 ? mainLane_ : worker; }
  const std::set<std::int64_t>& Used() const { return used_; }

 private:
  std::int64_t mainLane_ = 0;
  std::set<std::int64_t> used_;
};

std::string ProcessName(const Record& record) {
  std::string name = "orvane " + record.header.mode + " run of " + record.header.start;
  if (!record.header.host.empty()) {
    name += " on " + record.header.host;
  }
  return ValidUtf8(name);
}

}  // namespace

void WriteTrace(const Record& record, std::ostream& out) {
  const std::int64_t pid = record.header.pid > 0 ? record.header.pid : 1;
  const Lanes lanes(record);
  boost::json::array events;
  events.push_back({{"ph", "M"},
                    {"name", "process_name"},
                    {"pid", pid},
                    {"tid", 0},
                    {"args", {{"name", ProcessName(record)}}}});
  for (const std::int64_t worker : lanes.Used()) {
    const std::string laneName = worker < 0 ? "main thread" : "worker " + std::to_string(worker);
    events.push_back({{"ph", "M"},
                      {"name", "thread_name"},
                      {"pid", pid},
                      {"tid", lanes.Of(worker)},
                      {"args", {{"name", laneName}}}});
  }

  const std::vector<std::size_t> plugins = PlotRows(record);
  for (const std::size_t index : plugins) {
    const Vertex& plugin = record.vertices[index];
    const std::int64_t end = plugin.finish ? plugin.finish->t : record.Duration();
    boost::json::object args{{"kind", ValidUtf8(plugin.kind)}, {"file", ValidUtf8(plugin.file)}};
    args["outcome"] = plugin.finish ? plugin.outcome : (record.Live() ? "running" : "unfinished");
    if (plugin.ready) {
      args["ready"] = plugin.ready->t;
    }
    if (!plugin.reason.empty()) {
      args["reason"] = ValidUtf8(plugin.reason);
    }
    events.push_back({{"ph", "X"},
                      {"name", ValidUtf8(plugin.name)},
                      {"cat", ValidUtf8(plugin.kind)},
                      {"ts", plugin.start->t},
                      {"dur", std::max<std::int64_t>(end - plugin.start->t, 0)},
                      {"pid", pid},
                      {"tid", lanes.Of(plugin.start->worker)},
                      {"args", std::move(args)}});
  }

  for (const Vertex& barrier : record.vertices) {
    if (!barrier.isPlugin && barrier.done) {
      events.push_back({{"ph", "i"},
                        {"s", "t"},
                        {"name", ValidUtf8(barrier.name)},
                        {"cat", "barrier"},
                        {"ts", barrier.done->t},
                        {"pid", pid},
                        {"tid", lanes.Of(barrier.done->worker)},
                        {"args", {{"kind", ValidUtf8(barrier.kind)}}}});
    }
  }

  // Each arrow's ends lie inside the two activations, so that viewers bind
  // them to those events and to nothing that merely touches them.
  Releasers releasers(record);
  const auto middle = [&](const Vertex& plugin) {
    const std::int64_t end = plugin.finish ? plugin.finish->t : record.Duration();
    return plugin.start->t + std::max<std::int64_t>(end - plugin.start->t, 0) / 2;
  };
  std::int64_t flowId = 0;
  for (const std::size_t index : plugins) {
    const std::optional<std::size_t> releaser = releasers.Of(index);
    if (!releaser) {
      continue;
    }
    const Vertex& from = record.vertices[*releaser];
    const Vertex& to = record.vertices[index];
    ++flowId;
    events.push_back({{"ph", "s"},
                      {"id", flowId},
                      {"name", "release"},
                      {"cat", "release"},
                      {"ts", middle(from)},
                      {"pid", pid},
                      {"tid", lanes.Of(from.start->worker)}});
    events.push_back({{"ph", "f"},
                      {"bp", "e"},
                      {"id", flowId},
                      {"name", "release"},
                      {"cat", "release"},
                      {"ts", middle(to)},
                      {"pid", pid},
                      {"tid", lanes.Of(to.start->worker)}});
  }

  boost::json::object otherData{{"record", ValidUtf8(record.path)},
                                {"mode", ValidUtf8(record.header.mode)},
                                {"start", ValidUtf8(record.header.start)},
                                {"host", ValidUtf8(record.header.host)},
                                {"version", ValidUtf8(record.header.version)}};
  if (record.end) {
    otherData["status"] = record.end->status;
  }
  WriteJson(boost::json::object{{"traceEvents", std::move(events)},
                                {"displayTimeUnit", "ms"},
                                {"otherData", std::move(otherData)}},
            out);
}

}  // namespace orvane::analyze
