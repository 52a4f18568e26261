#include "analyze/CriticalChain.h"

#include <boost/json.hpp>
#include <ostream>
#include <utility>

#include "analyze/Formatting.h"
#include "analyze/RecordError.h"

namespace orvane::analyze {
namespace {

bool DoneLater(const Moment& left, const Moment& right) {
  return left.t != right.t ? left.t > right.t : left.line > right.line;
}

ChainLink LinkOf(const Record& record, std::size_t index) {
  const Vertex& vertex = record.vertices[index];
  ChainLink link{index, std::nullopt, std::nullopt, std::nullopt};
  if (vertex.ready) {
    link.ready = vertex.ready->t;
  }
  if (vertex.isPlugin) {
    link.took = vertex.ActivationTime();
    if (vertex.ready && vertex.start) {
      link.queued = vertex.start->t - vertex.ready->t;
    }
  } else if (vertex.ready && vertex.done) {
    link.took = vertex.done->t - vertex.ready->t;
  }
  return link;
}

/// "json, failed, queued 80µs" or "barrier": what a link line says after its times.
std::string Description(const Vertex& vertex, const ChainLink& link) {
  if (!vertex.isPlugin) {
    return vertex.kind == "priority" ? "priority barrier" : "barrier";
  }
  std::string description = TerminalText(vertex.kind);
  if (vertex.alreadyRun) {
    description += ", already run";
  } else if (!vertex.outcome.empty() && vertex.outcome != "activated") {
    description += ", " + TerminalText(vertex.outcome);
  } else if (vertex.start && !vertex.finish) {
    description += ", not finished";
  } else if (!vertex.start && !vertex.ready) {
    description += ", not ready";
  } else if (!vertex.start) {
    description += ", not started";
  }
  if (link.queued && *link.queued > 0) {
    description += ", queued " + FormatDuration(*link.queued);
  }
  return description;
}

void WriteText(const Record& record, const std::vector<ChainLink>& chain, bool ofRun,
               std::ostream& out) {
  out << "The time when each became ready is after \"@\", how long it took after \"+\".\n";
  if (ofRun) {
    if (record.end) {
      out << "The run ended after " << FormatDuration(record.end->t) << " with status "
          << record.end->status << ".\n";
    } else {
      out << "The run has not ended; its last event was at " << FormatDuration(record.lastEventTime)
          << ".\n";
    }
  }
  out << '\n';
  if (chain.empty()) {
    out << "Nothing is done yet.\n";
  }
  for (std::size_t position = 0; position < chain.size(); ++position) {
    const ChainLink& link = chain[position];
    const Vertex& vertex = record.vertices[link.vertex];
    out << (position == 0 ? "" : " \xE2\x94\x94\xE2\x94\x80") << TerminalText(vertex.name);
    if (link.ready) {
      out << " @" << FormatDuration(*link.ready);
    }
    if (link.took) {
      out << " +" << FormatDuration(*link.took);
    }
    out << " (" << Description(vertex, link) << ")\n";
  }
  if (chain.size() == 1 && !record.vertices[chain[0].vertex].ready &&
      !record.vertices[chain[0].vertex].Completion()) {
    out << "It still waits: orvane-analyze status shows for what.\n";
  }
}

boost::json::value OptionalNumber(const std::optional<std::int64_t>& number) {
  return number ? boost::json::value(*number) : boost::json::value(nullptr);
}

void WriteJsonReport(const Record& record, const std::vector<ChainLink>& chain,
                     const std::string& plugin, std::ostream& out) {
  boost::json::array links;
  for (const ChainLink& link : chain) {
    const Vertex& vertex = record.vertices[link.vertex];
    boost::json::object entry;
    entry["name"] = ValidUtf8(vertex.name);
    entry["type"] = vertex.isPlugin ? "plugin" : "barrier";
    entry["kind"] = ValidUtf8(vertex.kind);
    entry["ready"] = OptionalNumber(link.ready);
    entry["took"] = OptionalNumber(link.took);
    if (vertex.isPlugin) {
      entry["queued"] = OptionalNumber(link.queued);
      entry["outcome"] =
          vertex.outcome.empty() ? boost::json::value(nullptr) : boost::json::value(vertex.outcome);
    }
    links.push_back(std::move(entry));
  }
  boost::json::object report{{"record", ValidUtf8(record.path)}};
  report["plugin"] =
      plugin.empty() ? boost::json::value(nullptr) : boost::json::value(ValidUtf8(plugin));
  report["chain"] = std::move(links);
  WriteJson(report, out);
}

}  // namespace

std::optional<std::size_t> LastCompleted(const Record& record) {
  std::optional<std::size_t> last;
  std::optional<Moment> lastDone;
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    const std::optional<Moment> done = record.vertices[index].Completion();
    if (done && (!lastDone || DoneLater(*done, *lastDone))) {
      last = index;
      lastDone = done;
    }
  }
  return last;
}

std::optional<std::size_t> ChainTarget(const Record& record, const std::string& name) {
  const std::vector<std::size_t> named = record.PluginsNamed(name);
  if (named.empty()) {
    return std::nullopt;
  }
  std::size_t target = named.front();
  std::optional<Moment> targetDone = record.vertices[target].Completion();
  for (const std::size_t index : named) {
    const std::optional<Moment> done = record.vertices[index].Completion();
    if (done && (!targetDone || DoneLater(*done, *targetDone))) {
      target = index;
      targetDone = done;
    }
  }
  return target;
}

std::optional<std::size_t> WaitedForLast(const Record& record, std::size_t vertex) {
  std::optional<std::size_t> waitedForLast;
  std::optional<Moment> lastDone;
  for (const std::size_t required : record.vertices[vertex].required) {
    const std::optional<Moment> done = record.vertices[required].Completion();
    if (done && (!lastDone || DoneLater(*done, *lastDone))) {
      waitedForLast = required;
      lastDone = done;
    }
  }
  return waitedForLast;
}

std::vector<ChainLink> CriticalChain(const Record& record, std::size_t target) {
  std::vector<ChainLink> chain;
  std::vector<bool> visited(record.vertices.size(), false);
  std::optional<std::size_t> current = target;
  // A vertex not ready yet still waits for something: nothing decided its
  // time so far, and status says what holds it.
  const Vertex& head = record.vertices[target];
  if (!head.ready && !head.Completion()) {
    return {LinkOf(record, target)};
  }
  while (current && !visited[*current]) {
    visited[*current] = true;
    chain.push_back(LinkOf(record, *current));
    current = WaitedForLast(record, *current);
  }
  return chain;
}

void WriteCriticalChain(const Record& record, const std::string& plugin, bool json,
                        std::ostream& out) {
  std::optional<std::size_t> target;
  if (plugin.empty()) {
    target = LastCompleted(record);
  } else {
    target = ChainTarget(record, plugin);
    if (!target) {
      throw RecordError(record.path, "no plugin named \"" + TerminalText(plugin) + "\"");
    }
  }
  const std::vector<ChainLink> chain =
      target ? CriticalChain(record, *target) : std::vector<ChainLink>{};
  if (json) {
    WriteJsonReport(record, chain, plugin, out);
  } else {
    WriteText(record, chain, plugin.empty(), out);
  }
}

}  // namespace orvane::analyze
