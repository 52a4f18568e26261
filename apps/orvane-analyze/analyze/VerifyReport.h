/// What verify found in a plugin set, and how it is written: text for a
/// terminal or the same facts as JSON.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace orvane::analyze {

/// A failure is something that would make a boot fail or hang; a note only
/// deserves a look.
enum class VerifySeverity { Failure, Note };

/// What a finding is about. The JSON output names each by a fixed word:
/// plugin-directory, plugin-file, boot-flags, debug-configuration,
/// missing-provider, unrequired-barrier, cycle, cli-definitions and
/// command-line.
enum class VerifyKind {
  PluginDirectory,     ///< the plugin directory cannot be read
  PluginFile,          ///< a file of the plugin directory was refused or ignored
  BootFlags,           ///< a plugin takes part only with boot flags
  DebugConfiguration,  ///< the debug configuration or one of its lines
  MissingProvider,     ///< a barrier required but provided by nobody
  UnrequiredBarrier,   ///< a barrier provided but required by nobody
  Cycle,               ///< plugins and barriers that wait on each other
  CliDefinitions,      ///< a CLI definition directory or file that does not load
  CommandLine,         ///< a JSON plugin command line the executor would refuse
};

/// One fact about the plugin set. Only the fields that apply are filled.
struct VerifyFinding {
  VerifySeverity severity = VerifySeverity::Failure;
  VerifyKind kind = VerifyKind::PluginFile;
  std::string file;      ///< the file it is about, as the host names it
  std::string position;  ///< where in the file, such as "operations.start[2]"
  std::string barrier;   ///< the barrier it is about
  /// The plugins that require a barrier nobody provides, or that provide
  /// one nobody requires.
  std::vector<std::string> plugins;
  /// A cycle: the names of its plugins and barriers, the first again at the end.
  std::vector<std::string> cycle;
  /// How many plugins and barriers wait on each other in the cycle's knot.
  std::size_t knotSize = 0;
  std::string text;  ///< orvane's own words where it has them
};

/// What was looked at.
struct VerifyCounts {
  std::size_t pluginFiles = 0;
  std::size_t jsonPlugins = 0;
  std::size_t nativePlugins = 0;
  std::size_t debugInjections = 0;
  std::size_t barriers = 0;
  std::size_t commandLines = 0;
  std::size_t definitionDirectories = 0;  ///< of the four, those that could be read
};

/// The findings in the order they were made, and the counts.
class VerifyReport {
 public:
  void Add(VerifyFinding finding);
  /// A finding of @p kind about @p file with @p text.
  void AddFailure(VerifyKind kind, std::string file, std::string text);
  void AddNote(VerifyKind kind, std::string file, std::string text);

  VerifyCounts& Counts() { return counts_; }
  const VerifyCounts& Counts() const { return counts_; }
  const std::vector<VerifyFinding>& Findings() const { return findings_; }
  bool HasFailures() const;

  /// The failures, then the notes, each with its text wrapped to a
  /// terminal's width, after a short account of what was checked.
  void WriteText(const std::string& root, std::ostream& out) const;
  /// The same facts as one JSON object.
  void WriteJson(const std::string& root, std::ostream& out) const;

 private:
  std::vector<VerifyFinding> findings_;
  VerifyCounts counts_;
};

}  // namespace orvane::analyze
