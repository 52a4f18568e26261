/// The dependency graph in the Graphviz dot language.
#pragma once

#include <deque>
#include <iosfwd>

#include "orvaner/Plugin.h"

namespace orvane {

/// Writes one vertex: its label line, then one line per outgoing edge in
/// successor order. A vertex is identified by its address in decimal; its
/// name is written as it stands, without escaping.
void WriteDot(Node& node, std::ostream& stream);

/// Writes the whole graph: the opening line, every plugin in load order,
/// every barrier of @p barriers (name order), the closing line.
void WriteDependencyTree(const PluginList& plugins, const std::deque<Node*>& barriers,
                         std::ostream& stream);

}  // namespace orvane
