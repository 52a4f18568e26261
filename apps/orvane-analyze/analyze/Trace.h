/// orvane-analyze trace: the run in the trace event format that trace
/// viewers load (a JSON object with "traceEvents", times in microseconds).
#pragma once

#include <iosfwd>

#include "analyze/Record.h"

namespace orvane::analyze {

/// Writes the trace of @p record: one complete event ("ph":"X") per plugin
/// that started, on the lane of its worker (tid = worker; the main thread
/// gets the lane after the last worker's); an instant event per completed
/// barrier on the lane of the thread that completed it; a flow arrow
/// ("ph":"s" in the provider's event, "ph":"f" in the released plugin's)
/// from each plugin to every plugin it released, the ones whose last
/// awaited barrier it completed last; lane and process names. An
/// activation not finished lasts until the record's last event.
void WriteTrace(const Record& record, std::ostream& out);

}  // namespace orvane::analyze
