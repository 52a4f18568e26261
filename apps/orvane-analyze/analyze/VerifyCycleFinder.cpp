#include "analyze/VerifyCycleFinder.h"

#include <algorithm>

namespace orvane::analyze {

VerifyCycleFinder::VerifyCycleFinder(const std::vector<std::vector<std::size_t>>& successors,
                                     const std::vector<bool>& skipped)
    : successors_(successors),
      skipped_(skipped),
      order_(successors.size(), kNone),
      lowLink_(successors.size(), 0),
      component_(successors.size(), kNone),
      open_(successors.size(), false),
      parent_(successors.size(), kNone) {}

std::vector<VerifyCycle> VerifyCycleFinder::Find() {
  const std::size_t vertexCount = successors_.size();
  for (std::size_t vertex = 0; vertex < vertexCount; ++vertex) {
    if (!Skipped(vertex) && order_[vertex] == kNone) {
      NumberComponents(vertex);
    }
  }
  // Taken in vertex order, the first vertex met of a component is its lowest.
  std::vector<bool> looked(componentSizes_.size(), false);
  std::vector<VerifyCycle> cycles;
  for (std::size_t vertex = 0; vertex < vertexCount; ++vertex) {
    if (Skipped(vertex) || looked[component_[vertex]]) {
      continue;
    }
    looked[component_[vertex]] = true;
    const std::size_t size = componentSizes_[component_[vertex]];
    const std::vector<std::size_t>& next = successors_[vertex];
    if (size > 1 || std::find(next.begin(), next.end(), vertex) != next.end()) {
      cycles.push_back(ShortestCycleThrough(vertex, size));
    }
  }
  return cycles;
}

void VerifyCycleFinder::NumberComponents(std::size_t root) {
  // The depth-first walk of the recursive algorithm: each frame is a vertex
  // and the next of its edges to follow.
  struct Frame {
    std::size_t vertex;
    std::size_t nextEdge;
  };
  std::vector<Frame> walk;
  const auto reach = [&](std::size_t vertex) {
    order_[vertex] = lowLink_[vertex] = reached_++;
    open_[vertex] = true;
    openStack_.push_back(vertex);
    walk.push_back({vertex, 0});
  };
  reach(root);
  while (!walk.empty()) {
    Frame& frame = walk.back();
    const std::size_t vertex = frame.vertex;
    if (frame.nextEdge < successors_[vertex].size()) {
      const std::size_t next = successors_[vertex][frame.nextEdge++];
      if (Skipped(next)) {
        continue;
      }
      if (order_[next] == kNone) {
        reach(next);
      } else if (open_[next]) {
        lowLink_[vertex] = std::min(lowLink_[vertex], order_[next]);
      }
      continue;
    }
    walk.pop_back();
    if (!walk.empty()) {
      std::size_t& callerLowLink = lowLink_[walk.back().vertex];
      callerLowLink = std::min(callerLowLink, lowLink_[vertex]);
    }
    if (lowLink_[vertex] != order_[vertex]) {
      continue;
    }
    // The vertex is the first of a component: it and everything opened
    // after it form the component.
    const std::size_t number = componentSizes_.size();
    std::size_t size = 0;
    std::size_t member;
    do {
      member = openStack_.back();
      openStack_.pop_back();
      open_[member] = false;
      component_[member] = number;
      ++size;
    } while (member != vertex);
    componentSizes_.push_back(size);
  }
}

VerifyCycle VerifyCycleFinder::ShortestCycleThrough(std::size_t start, std::size_t componentSize) {
  VerifyCycle cycle;
  cycle.componentSize = componentSize;
  const std::size_t component = component_[start];
  std::vector<std::size_t> queue{start};
  for (std::size_t head = 0; head < queue.size() && cycle.path.empty(); ++head) {
    const std::size_t vertex = queue[head];
    for (std::size_t next : successors_[vertex]) {
      if (Skipped(next) || component_[next] != component) {
        continue;
      }
      if (next == start) {
        for (std::size_t step = vertex; step != start; step = parent_[step]) {
          cycle.path.push_back(step);
        }
        cycle.path.push_back(start);
        std::reverse(cycle.path.begin(), cycle.path.end());
        cycle.path.push_back(start);
        break;
      }
      if (parent_[next] == kNone) {
        parent_[next] = vertex;
        queue.push_back(next);
      }
    }
  }
  // Only what this search reached is reset, so that each search costs the
  // size of its own component.
  for (std::size_t vertex : queue) {
    parent_[vertex] = kNone;
  }
  return cycle;
}

}  // namespace orvane::analyze
