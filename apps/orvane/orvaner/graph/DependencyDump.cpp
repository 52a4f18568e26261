#include "orvaner/graph/DependencyDump.h"

#include <cstdint>
#include <ostream>

#include "orvaner/graph/GraphLock.h"
#include "orvaner/graph/Node.h"

namespace orvane {
namespace {

std::uint64_t Identifier(const Node& node) { return reinterpret_cast<std::uintptr_t>(&node); }

}  // namespace

void WriteDot(Node& node, std::ostream& stream) {
  const std::string attributes = node.DotAttributes();
  stream << Identifier(node) << " [label=\"" << node.Name() << '"' << attributes << "];"
         << std::endl;
  GraphLockGuard lock;
  for (const Node* successor : node.Successors()) {
    stream << Identifier(node) << " -> " << Identifier(*successor) << ';' << std::endl;
  }
}

void WriteDependencyTree(const std::deque<Node*>& plugins, const std::deque<Node*>& barriers,
                         std::ostream& stream) {
  stream << "digraph g {" << std::endl;
  for (Node* plugin : plugins) {
    WriteDot(*plugin, stream);
  }
  for (Node* barrier : barriers) {
    WriteDot(*barrier, stream);
  }
  stream << '}' << std::endl;
}

}  // namespace orvane
