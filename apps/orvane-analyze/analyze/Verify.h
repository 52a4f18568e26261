/// orvane-analyze verify: checks a plugin set offline, before it is
/// shipped, with orvane's own loading code.
#pragma once

#include <ostream>
#include <string>

namespace orvane::analyze {

struct VerifyOptions {
  std::string root = "/";  ///< the tree whose plugin directory, debug
                           ///< configuration and CLI definitions are checked
  bool json = false;       ///< the same facts as JSON
};

/// Checks every plugin file of the plugin directory and the debug
/// configuration under options.root, the graph they make, and every JSON
/// plugin command line against the CLI definitions under options.root; no
/// plugin operation runs. Writes the findings to @p out. Returns 0 when
/// nothing is wrong, 1 when something would fail or hang at boot.
int Verify(const VerifyOptions& options, std::ostream& out);

}  // namespace orvane::analyze
