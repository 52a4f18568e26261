/// orvane-analyze critical-chain: the plugins and barriers that decided when
/// the run, or one plugin, finished.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// One vertex of a critical chain with its times, in microseconds.
struct ChainLink {
  std::size_t vertex = 0;             ///< index into Record::vertices
  std::optional<std::int64_t> ready;  ///< when it became ready
  /// How long it took: a plugin's activation (finish - start), a barrier's
  /// completion after it became ready (done - ready); none while unfinished.
  std::optional<std::int64_t> took;
  /// A plugin's wait for a free worker (start - ready).
  std::optional<std::int64_t> queued;
};

/// The vertex done last (equal times: the later line), the one whose
/// completion ended the run; none when nothing was done.
std::optional<std::size_t> LastCompleted(const Record& record);

/// The plugin named @p name to follow: of several with that name, the one
/// done last, else the first; none when no plugin has that name.
std::optional<std::size_t> ChainTarget(const Record& record, const std::string& name);

/// Of the vertices @p vertex runs after, the one done last: what it waited
/// for last. None when it runs after nothing, or nothing it runs after was done.
std::optional<std::size_t> WaitedForLast(const Record& record, std::size_t vertex);

/// The chain that decided when @p target was done, @p target first: from
/// each vertex to what it waited for last (of the vertices it runs after,
/// the one done last), back to a vertex that waited for nothing. A target
/// not ready yet is the whole chain: it still waits.
std::vector<ChainLink> CriticalChain(const Record& record, std::size_t target);

/// Writes the chain of the plugin named @p plugin, or of the whole run when
/// @p plugin is empty, as text or JSON. Throws RecordError when the record
/// has no plugin of that name.
void WriteCriticalChain(const Record& record, const std::string& plugin, bool json,
                        std::ostream& out);

}  // namespace orvane::analyze
