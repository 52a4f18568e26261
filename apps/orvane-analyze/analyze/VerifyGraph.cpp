#include "analyze/VerifyGraph.h"

#include <string>
#include <unordered_map>
#include <utility>

#include "analyze/VerifyCycleFinder.h"
#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/InitBarrier.h"

namespace orvane::analyze {
namespace {

constexpr const char* kCycleArrow = " -> ";
// A longer cycle is shown by this many vertices at each end; the finding
// keeps every vertex of it.
constexpr std::size_t kShownCycleEnd = 8;

std::string Joined(std::vector<std::string>::const_iterator first,
                   std::vector<std::string>::const_iterator last) {
  std::string text;
  for (auto name = first; name != last; ++name) {
    text += (name == first ? "" : kCycleArrow) + *name;
  }
  return text;
}

// The cycle as "a -> BAR1 -> b -> BAR2 -> a", its middle left out when it
// is too long to read.
std::string CyclePath(const std::vector<std::string>& cycle) {
  if (cycle.size() <= 2 * kShownCycleEnd + 1) {
    return Joined(cycle.begin(), cycle.end());
  }
  const std::size_t leftOut = cycle.size() - 2 * kShownCycleEnd;
  return Joined(cycle.begin(), cycle.begin() + kShownCycleEnd) + kCycleArrow + "... " +
         std::to_string(leftOut) + " more ..." + kCycleArrow +
         Joined(cycle.end() - kShownCycleEnd, cycle.end());
}

std::string QuotedList(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "\"" : ", \"") + name + '"';
  }
  return text;
}

}  // namespace

VerifyGraph::Vertex::Vertex(std::string name) : Node(std::move(name), kDefaultSchedulingClass) {}

void VerifyGraph::Vertex::Execute(Executor&) {}

std::string VerifyGraph::Vertex::DotAttributes() { return ""; }

VerifyGraph::VerifyGraph(const std::vector<VerifyPlugin>& plugins) {
  GraphLockGuard lock;
  for (const VerifyPlugin& plugin : plugins) {
    Vertex& vertex = vertices_.emplace_back(plugin.name);
    for (const std::string& barrier : plugin.requiredBarriers) {
      vertex.Requires(*registry_.GetBarrier(barrier, true));
    }
    for (const std::string& barrier : plugin.providedBarriers) {
      vertex.Provides(*registry_.GetBarrier(barrier, true));
    }
    if (plugin.refused) {
      vertex.MarkDone();
    }
  }
}

// The vertices and the barriers point at each other; neither looks at the
// other when it goes.
VerifyGraph::~VerifyGraph() = default;

void VerifyGraph::Check(VerifyReport& report) {
  GraphLockGuard lock;
  report.Counts().barriers = registry_.ListBarriers().size();
  CheckProviders(report);
  CheckCycles(report);
}

void VerifyGraph::CheckProviders(VerifyReport& report) {
  for (Node* barrier : registry_.ListBarriers()) {
    VerifyFinding finding;
    finding.barrier = barrier->Name();
    if (barrier->Predecessors().empty()) {
      // The alert a boot raises when it reaches the barrier (every barrier
      // here is an InitBarrier: the set has no start-priority levels).
      finding.severity = VerifySeverity::Failure;
      finding.kind = VerifyKind::MissingProvider;
      finding.plugins = NamesOf(barrier->Successors());
      finding.text = static_cast<InitBarrier*>(barrier)->MissingProviderText();
      report.Add(std::move(finding));
    } else if (barrier->Successors().empty()) {
      finding.severity = VerifySeverity::Note;
      finding.kind = VerifyKind::UnrequiredBarrier;
      finding.plugins = NamesOf(barrier->Predecessors());
      finding.text = "barrier \"" + barrier->Name() + "\" is provided by " +
                     QuotedList(finding.plugins) + " but no plugin requires it";
      report.Add(std::move(finding));
    }
  }
}

void VerifyGraph::CheckCycles(VerifyReport& report) {
  // The plugins are numbered first, in load order, so that a cycle starts
  // at the first plugin of its knot.
  std::vector<Node*> nodes;
  for (Vertex& vertex : vertices_) {
    nodes.push_back(&vertex);
  }
  for (Node* barrier : registry_.ListBarriers()) {
    nodes.push_back(barrier);
  }
  std::unordered_map<const Node*, std::size_t> numbers;
  numbers.reserve(nodes.size());
  for (std::size_t number = 0; number < nodes.size(); ++number) {
    numbers.emplace(nodes[number], number);
  }
  std::vector<std::vector<std::size_t>> successors(nodes.size());
  std::vector<bool> skipped(nodes.size(), false);
  for (std::size_t number = 0; number < nodes.size(); ++number) {
    for (const Node* next : nodes[number]->Successors()) {
      successors[number].push_back(numbers.at(next));
    }
    // A done vertex holds nothing up: a boot goes past it, and through any
    // cycle it is part of.
    skipped[number] = nodes[number]->State() == NodeState::Started;
  }

  for (const VerifyCycle& cycle : VerifyCycleFinder(successors, skipped).Find()) {
    VerifyFinding finding;
    finding.severity = VerifySeverity::Failure;
    finding.kind = VerifyKind::Cycle;
    for (std::size_t number : cycle.path) {
      finding.cycle.push_back(nodes[number]->Name());
    }
    finding.knotSize = cycle.componentSize;
    finding.text = CyclePath(finding.cycle) +
                   "\nThe boot would hang: " + std::to_string(cycle.componentSize) +
                   " plugins and barriers wait on each other.";
    report.Add(std::move(finding));
  }
}

}  // namespace orvane::analyze
