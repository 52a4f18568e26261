/// Loading a plugin set for verify: file by file through orvane's own
/// loader, as a boot would load it, but with every plugin taking part.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "analyze/VerifyCapture.h"
#include "analyze/VerifyPaths.h"
#include "analyze/VerifyReport.h"
#include "orvaner/RunOptions.h"
#include "orvaner/plugins/DebugConfiguration.h"

namespace orvane {
class Node;
}

namespace orvane::analyze {

/// The names of @p nodes, in order.
std::vector<std::string> NamesOf(const std::vector<Node*>& nodes);

/// One plugin as loading made it: what the graph and the command-line
/// check need of it.
struct VerifyPlugin {
  enum class Kind { JSON, Native, Debug };

  Kind kind = Kind::JSON;
  std::string name;
  std::string file;  ///< the file it came from, as the host names it
  /// Refused by the loader after it had linked barriers: a boot keeps it in
  /// the graph, done, so it neither runs nor holds anything up.
  bool refused = false;
  std::vector<std::string> requiredBarriers;     ///< in the order linked
  std::vector<std::string> providedBarriers;     ///< in the order linked
  std::vector<std::string> startCommands;        ///< JSON plugins only
  std::vector<std::string> hostProfileCommands;  ///< JSON plugins only
};

/// Loads the plugin directory and the debug configuration under a root as
/// EnumeratePlugins does: the debug configuration read once, then every
/// entry of the plugin directory through LoadPlugin (in byte-wise name
/// order, so that reports are the same on every file system), then every
/// debug entry as an injection. Each file is loaded into a barrier registry
/// of its own, with no plugin disabled, no boot flags and no run-once
/// record; a plugin that a boot leaves out for want of its boot flags is
/// checked as taking part all the same (the loader keeps it, linked). What the loader
/// raises and logs becomes findings: refusals with orvane's texts are
/// failures, files of unknown or unspecified type and boot-flag conditions
/// notes.
class VerifyLoader {
 public:
  VerifyLoader(const VerifyPaths& paths, VerifyCapture& capture, VerifyReport& report);

  /// The plugins in load order, refused ones that stay linked included.
  /// Adds the findings and the file and plugin counts to the report.
  std::vector<VerifyPlugin> Load();

 private:
  /// What one LoadPlugin call of a file gave.
  struct Attempt {
    VerifyMessages messages;             ///< without what reading the debug configuration says
    std::vector<VerifyPlugin> listed;    ///< the plugins that take part
    std::vector<VerifyPlugin> keptDone;  ///< the plugins linked but left out
    /// Why a boot without boot flags leaves a listed plugin out.
    std::vector<std::string> flagConditions;
  };

  void ReadDebugConfiguration();
  std::vector<std::string> ListPluginDirectory();
  void LoadFile(const std::string& fileName);
  Attempt LoadOnce(const std::string& fileName);
  /// The plugins of @p attempt join the set; its alerts are failures and
  /// what else it logged a note.
  void Take(const std::string& hostFile, Attempt& attempt);
  void AddDebugInjections();

  const VerifyPaths& paths_;
  VerifyCapture& capture_;
  VerifyReport& report_;
  RunOptions options_;
  std::vector<DebugEntry> debugEntries_;
  /// What reading the debug configuration logged, which the loader logs
  /// again for every file.
  std::set<std::string> debugConfigurationLines_;
  std::vector<VerifyPlugin> plugins_;
};

}  // namespace orvane::analyze
