#include "analyze/Plot.h"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <cstdio>
#include <ostream>
#include <string>
#include <string_view>

#include "analyze/CriticalChain.h"
#include "analyze/Formatting.h"

namespace orvane::analyze {
namespace {

// The geometry of the chart, in SVG user units (pixels at 100%).
constexpr double kTimelineWidth = 1000;
constexpr double kRowHeight = 18;
constexpr double kBarHeight = 12;
constexpr double kCharacterWidth = 7;  // of the 12-pixel sans-serif font, on average
constexpr double kMargin = 10;
constexpr double kRightMargin = 170;  // room for the time and outcome after the last bar
constexpr double kTitleY = 22;
constexpr double kSubtitleY = 40;
constexpr double kLegendY = 52;
constexpr double kAxisLabelY = 86;
constexpr double kRowsTop = 94;
constexpr double kBottomRoom = 28;
constexpr std::size_t kMostTicks = 10;

/// The colour of each plugin kind; other kinds are grey.
struct KindColour {
  std::string_view kind;
  std::string_view colour;
};
constexpr std::array<KindColour, 5> kKindColours{{
    {"json", "#4e79a7"},
    {"native", "#f28e2b"},
    {"debug", "#76b7b2"},
    {"daemon", "#59a14f"},
    {"legacy-daemon", "#b07aa1"},
}};
constexpr std::string_view kOtherKindColour = "#9c9c9c";

constexpr std::string_view kStyle = R"(
  text { font-family: 'DejaVu Sans', Verdana, Arial, sans-serif; font-size: 12px; fill: #222; }
  .title { font-size: 16px; font-weight: bold; }
  .axis { font-size: 11px; fill: #555; }
  .note { font-size: 11px; fill: #555; }
  .failed-text { fill: #d62728; font-weight: bold; }
  .critical-text { font-weight: bold; }
  .zebra { fill: #f3f3f3; }
  .grid { stroke: #d0d0d0; stroke-width: 1; }
  .bar { stroke: none; }
  .wait { opacity: 0.3; }
  .failed { stroke: #d62728; stroke-width: 2; }
  .skipped { opacity: 0.5; }
  .critical { fill: none; stroke: #000; stroke-width: 1.5; }
  .chain { fill: none; stroke: #000; stroke-width: 1.2; stroke-dasharray: 4 3; }
)";

std::string_view ColourOf(std::string_view kind) {
  for (const KindColour& entry : kKindColours) {
    if (entry.kind == kind) {
      return entry.colour;
    }
  }
  return kOtherKindColour;
}

/// @p value with one decimal, as SVG coordinates are written.
std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

/// The step of the time axis: the smallest of 1, 2 and 5 times a power of
/// ten, in microseconds, that leaves at most kMostTicks ticks.
std::int64_t TickStep(std::int64_t total) {
  for (std::int64_t power = 1;; power *= 10) {
    for (const std::int64_t factor : {1, 2, 5}) {
      const std::int64_t step = power * factor;
      if (total / step <= static_cast<std::int64_t>(kMostTicks)) {
        return step;
      }
    }
  }
}

/// A tick's time without the zeros that end its decimals: "5ms", "12.5ms".
std::string TickLabel(std::int64_t t) {
  std::string label = FormatDuration(t);
  const std::size_t point = label.find('.');
  if (point == std::string::npos) {
    return label;
  }
  std::size_t digitsEnd = point + 1;
  while (digitsEnd < label.size() && label[digitsEnd] >= '0' && label[digitsEnd] <= '9') {
    ++digitsEnd;
  }
  std::size_t kept = digitsEnd;
  while (kept > point + 1 && label[kept - 1] == '0') {
    --kept;
  }
  if (kept == point + 1) {
    kept = point;
  }
  return label.erase(kept, digitsEnd - kept);
}

/// The chart's layout: where a time and a row are.
class Layout {
 public:
  Layout(const Record& record, const std::vector<std::size_t>& rows) {
    total_ = std::max<std::int64_t>(record.Duration(), 1);
    std::size_t longestName = 0;
    for (const std::size_t index : rows) {
      longestName = std::max(longestName, DisplayWidth(record.vertices[index].name));
    }
    labelRight_ =
        kMargin + kCharacterWidth * static_cast<double>(std::min(longestName, kNameColumnWidth));
    timelineLeft_ = labelRight_ + kMargin;
    rowCount_ = rows.size();
  }

  std::int64_t Total() const { return total_; }
  double LabelRight() const { return labelRight_; }
  double TimelineLeft() const { return timelineLeft_; }
  double TimelineRight() const { return timelineLeft_ + kTimelineWidth; }
  double X(std::int64_t t) const {
    const std::int64_t clamped = std::clamp<std::int64_t>(t, 0, total_);
    return timelineLeft_ +
           kTimelineWidth * static_cast<double>(clamped) / static_cast<double>(total_);
  }
  double RowTop(std::size_t row) const { return kRowsTop + kRowHeight * static_cast<double>(row); }
  double BarTop(std::size_t row) const { return RowTop(row) + (kRowHeight - kBarHeight) / 2; }
  double RowMiddle(std::size_t row) const { return RowTop(row) + kRowHeight / 2; }
  double RowsBottom() const { return RowTop(rowCount_); }
  double Width() const { return TimelineRight() + kRightMargin; }
  double Height() const { return RowsBottom() + kBottomRoom; }

 private:
  std::int64_t total_ = 1;
  double labelRight_ = 0;
  double timelineLeft_ = 0;
  std::size_t rowCount_ = 0;
};

/// Writes the SVG, part by part, top to bottom.
class ChartWriter {
 public:
  ChartWriter(const Record& record, std::ostream& out)
      : record_(record), out_(out), rows_(PlotRows(record)), layout_(record, rows_) {
    FindCriticalChain();
  }

  void Write() {
    out_ << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << Number(layout_.Width())
         << "\" height=\"" << Number(layout_.Height()) << "\" viewBox=\"0 0 "
         << Number(layout_.Width()) << ' ' << Number(layout_.Height()) << "\">\n"
         << "<style>" << kStyle << "</style>\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    WriteTitle();
    WriteLegend();
    WriteAxis();
    for (std::size_t row = 0; row < rows_.size(); ++row) {
      WriteRow(row);
    }
    WriteChainLinks();
    out_ << "</svg>\n";
  }

 private:
  void FindCriticalChain() {
    rowOf_.assign(record_.vertices.size(), kNoRow);
    for (std::size_t row = 0; row < rows_.size(); ++row) {
      rowOf_[rows_[row]] = row;
    }
    onChain_.assign(record_.vertices.size(), false);
    const std::optional<std::size_t> last = LastCompleted(record_);
    if (!last) {
      return;
    }
    for (const ChainLink& link : CriticalChain(record_, *last)) {
      onChain_[link.vertex] = true;
      if (rowOf_[link.vertex] != kNoRow) {
        chainRows_.push_back(rowOf_[link.vertex]);
      }
    }
  }

  void WriteTitle() {
    const RecordHeader& header = record_.header;
    std::string title = "orvane " + header.mode + " run of " + header.start;
    if (!header.host.empty()) {
      title += " on " + header.host;
    }
    out_ << "<text class=\"title\" x=\"" << Number(kMargin) << "\" y=\"" << Number(kTitleY) << "\">"
         << XmlText(title) << "</text>\n";
    std::size_t failed = 0;
    for (const std::size_t index : rows_) {
      failed += record_.vertices[index].outcome == "failed" ? 1 : 0;
    }
    std::string subtitle =
        std::to_string(rows_.size()) + " plugins started, " + std::to_string(failed) + " failed; ";
    if (record_.end) {
      subtitle += "the run ended after " + FormatDuration(record_.end->t) + " with status " +
                  std::to_string(record_.end->status);
    } else {
      subtitle +=
          "the run had not ended at its last event, " + FormatDuration(record_.lastEventTime);
    }
    out_ << "<text class=\"note\" x=\"" << Number(kMargin) << "\" y=\"" << Number(kSubtitleY)
         << "\">" << XmlText(subtitle) << "</text>\n";
  }

  void WriteLegend() {
    double x = kMargin;
    const auto swatch = [&](const std::string& attributes, std::string_view label) {
      out_ << "<rect x=\"" << Number(x) << "\" y=\"" << Number(kLegendY)
           << "\" width=\"18\" height=\"" << Number(kBarHeight) << "\" " << attributes << "/>\n"
           << "<text x=\"" << Number(x + 24) << "\" y=\"" << Number(kLegendY + 10) << "\">"
           << XmlText(label) << "</text>\n";
      x += 24 + kCharacterWidth * static_cast<double>(DisplayWidth(label)) + 16;
    };
    for (const KindColour& entry : kKindColours) {
      if (KindPresent(entry.kind)) {
        swatch("class=\"bar\" fill=\"" + std::string(entry.colour) + "\"", entry.kind);
      }
    }
    swatch("class=\"bar wait\" fill=\"" + std::string(kKindColours[0].colour) + "\"",
           "waiting to start");
    swatch("class=\"bar failed\" fill=\"#ffffff\"", "failed");
    swatch("class=\"critical\"", "critical chain");
  }

  bool KindPresent(std::string_view kind) const {
    return std::any_of(rows_.begin(), rows_.end(),
                       [&](std::size_t index) { return record_.vertices[index].kind == kind; });
  }

  void WriteAxis() {
    const std::int64_t step = TickStep(layout_.Total());
    const double top = kAxisLabelY + 4;
    const double bottom = layout_.RowsBottom();
    for (std::int64_t tick = 0; tick <= layout_.Total(); tick += step) {
      const std::string x = Number(layout_.X(tick));
      const std::string label = XmlText(TickLabel(tick));
      out_ << "<line class=\"grid\" x1=\"" << x << "\" y1=\"" << Number(top) << "\" x2=\"" << x
           << "\" y2=\"" << Number(bottom) << "\"/>\n"
           << "<text class=\"axis\" x=\"" << x << "\" y=\"" << Number(kAxisLabelY)
           << "\" text-anchor=\"middle\">" << label << "</text>\n"
           << "<text class=\"axis\" x=\"" << x << "\" y=\"" << Number(bottom + 16)
           << "\" text-anchor=\"middle\">" << label << "</text>\n";
    }
    if (rows_.empty()) {
      out_ << "<text class=\"note\" x=\"" << Number(layout_.TimelineLeft()) << "\" y=\""
           << Number(kRowsTop + 12) << "\">No plugin has started.</text>\n";
    }
  }

  void WriteRow(std::size_t row) {
    const Vertex& plugin = record_.vertices[rows_[row]];
    const bool failed = plugin.outcome == "failed";
    const bool critical = onChain_[rows_[row]];
    if (row % 2 == 1) {
      out_ << "<rect class=\"zebra\" x=\"0\" y=\"" << Number(layout_.RowTop(row)) << "\" width=\""
           << Number(layout_.Width()) << "\" height=\"" << Number(kRowHeight) << "\"/>\n";
    }
    out_ << "<text x=\"" << Number(layout_.LabelRight()) << "\" y=\""
         << Number(layout_.RowTop(row) + 13) << "\" text-anchor=\"end\""
         << (failed     ? " class=\"failed-text\""
             : critical ? " class=\"critical-text\""
                        : "")
         << '>' << XmlText(FitWidth(plugin.name, kNameColumnWidth)) << "</text>\n";

    const std::string_view colour = ColourOf(plugin.kind);
    const std::string barTop = Number(layout_.BarTop(row));
    const std::string barHeight = Number(kBarHeight);
    const double startX = layout_.X(plugin.start->t);
    if (plugin.ready && plugin.ready->t < plugin.start->t) {
      const double readyX = layout_.X(plugin.ready->t);
      out_ << "<rect class=\"bar wait\" fill=\"" << colour << "\" x=\"" << Number(readyX)
           << "\" y=\"" << barTop << "\" width=\"" << Number(std::max(startX - readyX, 0.5))
           << "\" height=\"" << barHeight << "\"/>\n";
    }
    const std::int64_t endTime = plugin.finish ? plugin.finish->t : record_.Duration();
    // Every activation stays visible, however short.
    const double width = std::max(layout_.X(endTime) - startX, 1.0);
    out_ << "<rect class=\"bar" << (failed ? " failed" : "")
         << (plugin.outcome == "skipped" ? " skipped" : "") << "\" fill=\"" << colour << "\" x=\""
         << Number(startX) << "\" y=\"" << barTop << "\" width=\"" << Number(width)
         << "\" height=\"" << barHeight << "\"><title>" << XmlText(Tooltip(plugin))
         << "</title></rect>\n";
    if (critical) {
      out_ << "<rect class=\"critical\" x=\"" << Number(startX - 2) << "\" y=\""
           << Number(layout_.BarTop(row) - 2) << "\" width=\"" << Number(width + 4)
           << "\" height=\"" << Number(kBarHeight + 4) << "\"/>\n";
    }
    std::string after = FormatDuration(endTime - plugin.start->t);
    if (!plugin.finish) {
      after += record_.Live() ? " running" : " unfinished";
    } else if (plugin.outcome != "activated") {
      after += " " + plugin.outcome;
    }
    out_ << "<text class=\"note" << (failed ? " failed-text" : "") << "\" x=\""
         << Number(startX + width + 5) << "\" y=\"" << Number(layout_.RowTop(row) + 13) << "\">"
         << XmlText(after) << "</text>\n";
  }

  std::string Tooltip(const Vertex& plugin) const {
    std::string tooltip = plugin.name + " (" + plugin.kind + ")";
    if (plugin.ready) {
      tooltip += ", ready @" + FormatDuration(plugin.ready->t);
    }
    tooltip += ", started @" + FormatDuration(plugin.start->t);
    if (plugin.finish) {
      tooltip += ", finished @" + FormatDuration(plugin.finish->t) + ": " + plugin.outcome;
    }
    if (!plugin.reason.empty()) {
      tooltip += ": " + plugin.reason;
    }
    return tooltip;
  }

  /// Dashed lines from each plugin of the critical chain to the one it
  /// released: from the end of the earlier bar to where the later became ready.
  void WriteChainLinks() {
    // chainRows_ runs from the last plugin back to the first.
    for (std::size_t position = 1; position < chainRows_.size(); ++position) {
      const std::size_t laterRow = chainRows_[position - 1];
      const std::size_t earlierRow = chainRows_[position];
      const Vertex& earlier = record_.vertices[rows_[earlierRow]];
      const Vertex& later = record_.vertices[rows_[laterRow]];
      const std::int64_t from = earlier.finish ? earlier.finish->t : record_.Duration();
      const std::int64_t to = later.ready ? later.ready->t : later.start->t;
      out_ << "<path class=\"chain\" d=\"M" << Number(layout_.X(from)) << ','
           << Number(layout_.RowMiddle(earlierRow)) << " L" << Number(layout_.X(to)) << ','
           << Number(layout_.RowMiddle(laterRow)) << "\"/>\n";
    }
  }

  static constexpr std::size_t kNoRow = static_cast<std::size_t>(-1);

  const Record& record_;
  std::ostream& out_;
  std::vector<std::size_t> rows_;
  Layout layout_;
  std::vector<std::size_t> rowOf_;
  std::vector<bool> onChain_;
  std::vector<std::size_t> chainRows_;
};

void WriteJsonRows(const Record& record, std::ostream& out) {
  const std::vector<std::size_t> rows = PlotRows(record);
  std::vector<bool> onChain(record.vertices.size(), false);
  if (const std::optional<std::size_t> last = LastCompleted(record)) {
    for (const ChainLink& link : CriticalChain(record, *last)) {
      onChain[link.vertex] = true;
    }
  }
  boost::json::array plugins;
  plugins.reserve(rows.size());
  for (const std::size_t index : rows) {
    const Vertex& plugin = record.vertices[index];
    boost::json::object row;
    row["name"] = ValidUtf8(plugin.name);
    row["kind"] = ValidUtf8(plugin.kind);
    row["outcome"] = plugin.finish ? boost::json::value(plugin.outcome) : nullptr;
    row["ready"] = plugin.ready ? boost::json::value(plugin.ready->t) : nullptr;
    row["start"] = plugin.start->t;
    row["finish"] = plugin.finish ? boost::json::value(plugin.finish->t) : nullptr;
    row["critical"] = static_cast<bool>(onChain[index]);
    plugins.push_back(std::move(row));
  }
  WriteJson(boost::json::object{{"record", ValidUtf8(record.path)},
                                {"microseconds", record.Duration()},
                                {"plugins", std::move(plugins)}},
            out);
}

}  // namespace

std::vector<std::size_t> PlotRows(const Record& record) {
  std::vector<std::size_t> rows;
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    if (record.vertices[index].isPlugin && record.vertices[index].start) {
      rows.push_back(index);
    }
  }
  std::sort(rows.begin(), rows.end(), [&](std::size_t left, std::size_t right) {
    const Moment& leftStart = *record.vertices[left].start;
    const Moment& rightStart = *record.vertices[right].start;
    return leftStart.t != rightStart.t ? leftStart.t < rightStart.t
                                       : leftStart.line < rightStart.line;
  });
  return rows;
}

void WritePlot(const Record& record, bool json, std::ostream& out) {
  if (json) {
    WriteJsonRows(record, out);
    return;
  }
  ChartWriter(record, out).Write();
}

}  // namespace orvane::analyze
