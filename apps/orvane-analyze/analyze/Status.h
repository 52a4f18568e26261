/// orvane-analyze status: where a run still going stands, for the operator
/// of a boot that hangs: what runs now, and what waits for what.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// The most providers a barrier lists, and the most holders a waiting
/// plugin names; the rest are counted.
inline constexpr std::size_t kMostListed = 3;

/// What holds a waiting plugin: the running or queued plugins at the
/// bottom of everything it waits for, found through the vertices not yet done.
struct Holders {
  std::vector<std::size_t> plugins;  ///< at most kMostListed, indices into Record::vertices
  bool more = false;                 ///< more than those hold it
};

/// The holders of every vertex of @p record that is not done (empty for
/// those that are). A wait that leads only into a cycle, or to a barrier
/// nobody provides, has no holder.
std::vector<Holders> FindHolders(const Record& record);

/// Writes the state of the run at @p nowMicroseconds (wall clock, since
/// the epoch, compared with the header's startMicroseconds): the plugins
/// running and for how long, those ready and waiting for a worker, and
/// every plugin still waiting with the vertices it waits for, their
/// providers not yet done and the plugins that hold it. For a record with
/// an end line: that the run ended, with its status.
void WriteStatus(const Record& record, std::int64_t nowMicroseconds, bool json, std::ostream& out);

}  // namespace orvane::analyze
