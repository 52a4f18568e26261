#include "analyze/Record.h"

namespace orvane::analyze {

std::optional<Moment> Vertex::Completion() const {
  if (!isPlugin) {
    return done;
  }
  if (finish) {
    return finish;
  }
  // A plugin already run takes part in the graph but never starts: it is
  // done as soon as it is ready.
  if (alreadyRun) {
    return ready;
  }
  return std::nullopt;
}

VertexState Vertex::State() const {
  // A plugin already run is done from the start, with or without events.
  if (alreadyRun || Completion()) {
    return VertexState::kDone;
  }
  if (start) {
    return VertexState::kRunning;
  }
  if (ready) {
    return VertexState::kQueued;
  }
  return VertexState::kWaiting;
}

std::optional<std::int64_t> Vertex::ActivationTime() const {
  if (!start || !finish) {
    return std::nullopt;
  }
  return finish->t - start->t;
}

std::vector<std::size_t> Record::PluginsNamed(const std::string& name) const {
  std::vector<std::size_t> matches;
  for (std::size_t index = 0; index < vertices.size(); ++index) {
    if (vertices[index].isPlugin && vertices[index].name == name) {
      matches.push_back(index);
    }
  }
  return matches;
}

}  // namespace orvane::analyze
