/// The dependency graph in the Graphviz dot language.
#pragma once

#include <deque>
#include <iosfwd>

namespace orvane {

class Node;

/// Writes one vertex: its label line, then one line per outgoing edge in
/// successor order. A vertex is identified by its address in decimal; its
/// name is written as it stands, without escaping.
void WriteDot(Node& node, std::ostream& stream);

/// Writes the whole graph: the opening line, every vertex of @p plugins
/// (the plugins in load order), every barrier of @p barriers (name order),
/// the closing line.
void WriteDependencyTree(const std::deque<Node*>& plugins, const std::deque<Node*>& barriers,
                         std::ostream& stream);

}  // namespace orvane
