/// The debug configuration: shell commands a developer injects into the boot
/// graph, one per line of a plain text file.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "orvane/FixedPaths.h"

namespace orvane {

/// One valid line of the debug configuration.
struct DebugEntry {
  std::string name;
  std::vector<std::string> requiredBarriers;  ///< in the order written
  std::vector<std::string> providedBarriers;  ///< in the order written
  std::string command;                        ///< handed to the shell as it stands
};

/// A debug configuration larger than this is not read: it is written by
/// hand, a line per injection.
inline constexpr std::size_t kMaxDebugConfigurationSize = std::size_t{16} * 1024 * 1024;

/// Reads the debug configuration at @p path and appends one entry per valid
/// line to @p entries, in file order. A line is trimmed of the locale's white
/// space; an empty one is skipped. The rest is split on ":" into exactly four
/// fields (name, required barriers, provided barriers, command), and the two
/// barrier fields on ","; "\" escapes the next character and either quote
/// character quotes a field, both removed from the values. Any other line,
/// including one whose escapes the splitter rejects (an unknown escape or a
/// line ending in "\"), is logged at level 5 as malformed with its 1-based
/// number and skipped. A file that cannot be opened gives no entries; so
/// does one that is not a regular file or is larger than
/// kMaxDebugConfigurationSize, with a warning at level 3. Never throws for
/// the content of the file.
void ReadDebugConfiguration(std::vector<DebugEntry>& entries,
                            const std::string& path = paths::kDebugConfiguration);

/// ReadDebugConfiguration's entries without a copy: the file is read and its
/// malformed lines logged on every call, but a text that has not changed
/// since the last call is not parsed again and its entries are shared.
std::shared_ptr<const std::vector<DebugEntry>> ReadDebugEntries(
    const std::string& path = paths::kDebugConfiguration);

}  // namespace orvane
