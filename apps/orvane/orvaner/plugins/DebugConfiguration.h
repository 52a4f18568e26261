/// The debug configuration: shell commands a developer injects into the boot
/// graph, one per line of a plain text file.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hostfile/HostFile.h"
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

/// ReadDebugConfiguration's entries without a copy, through the process-wide
/// DebugConfigurationCache: the malformed lines are logged on every call and
/// a changed file is always seen, but a text that has not changed since the
/// last call is neither parsed nor, once its stamps tell it apart, read again.
std::shared_ptr<const std::vector<DebugEntry>> ReadDebugEntries(
    const std::string& path = paths::kDebugConfiguration);

/// The last debug configuration read, for a loader that asks for the file
/// once per plugin file name. Every call behaves as a fresh read: the
/// entries are those of the file as it is, and its malformed lines are
/// logged again. A text equal to the last one read is not parsed again. When
/// the file's identity and change stamps are those of the last read, and its
/// last change lay more than the settling margin before that read began, the
/// file is not read either: a stat tells that it is unchanged.
class DebugConfigurationCache {
 public:
  /// How long before a read the file must have last changed for its stamps
  /// to tell that text apart from any later one. Two writes within one tick
  /// of the file system's clock leave the same stamps, and a file system
  /// may keep whole seconds only (two for some); a file changed within this
  /// margin of a read is read again on every call until a read comes later.
  static constexpr std::chrono::nanoseconds kSettlingMargin = std::chrono::seconds(2);

  explicit DebugConfigurationCache(std::chrono::nanoseconds settlingMargin = kSettlingMargin)
      : settlingMargin_(settlingMargin) {}
  DebugConfigurationCache(const DebugConfigurationCache&) = delete;
  DebugConfigurationCache& operator=(const DebugConfigurationCache&) = delete;

  /// The one ReadDebugEntries uses.
  static DebugConfigurationCache& Instance();

  /// The entries of the configuration at @p path, as ReadDebugConfiguration
  /// reads them, shared with the earlier calls while the text is the same.
  std::shared_ptr<const std::vector<DebugEntry>> Read(const std::string& path);

  /// How many calls read the file's text (the others took it from its stamps).
  std::size_t TextReads() const;

 private:
  /// A text read and what it says: its entries and its malformed lines
  /// (number and trimmed text), in file order; with the stamps of the file
  /// it came from and whether those alone identify it.
  struct Parsed {
    std::string content;
    std::shared_ptr<const std::vector<DebugEntry>> entries;
    std::vector<std::pair<int, std::string>> malformed;
    hostfile::FileStamp stamp;
    bool stampIdentifiesText = false;
  };

  static Parsed Parse(std::string content);
  /// The last text's entries, its malformed lines logged; under mutex_.
  std::shared_ptr<const std::vector<DebugEntry>> Reuse() const;

  const std::chrono::nanoseconds settlingMargin_;
  mutable std::mutex mutex_;
  Parsed last_;
  std::size_t textReads_ = 0;
};

}  // namespace orvane
