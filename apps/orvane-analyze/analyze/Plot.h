/// orvane-analyze plot: the run as an SVG boot chart, a row per plugin in
/// start order on a common time axis.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <vector>

#include "analyze/Record.h"

namespace orvane::analyze {

/// The plugins a chart draws, one row each: those that started, in start
/// order (indices into Record::vertices).
std::vector<std::size_t> PlotRows(const Record& record);

/// Writes the boot chart as a standalone SVG document: per row the wait
/// from ready to start in a light shade and the activation from start to
/// finish in the plugin kind's colour, failed plugins outlined in red and
/// named in red, the critical chain of the run outlined in black and joined
/// by dashed lines, a time axis with grid lines above and below, a legend.
/// With @p json, writes the rows' facts as JSON instead.
void WritePlot(const Record& record, bool json, std::ostream& out);

}  // namespace orvane::analyze
