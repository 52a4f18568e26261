/// What every command shares to write its output: durations for people,
/// names made safe for a terminal, an SVG file or JSON, and columns that
/// keep a line within a terminal's width.
#pragma once

#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace orvane::analyze {

/// The widest a name column grows in a table, in characters, so that a
/// line of time, name, kind and outcome fits 80 columns.
inline constexpr std::size_t kNameColumnWidth = 40;

/// @p microseconds for a person: "520µs", "12.345ms", "1.234s", "2min 3.456s",
/// "1h 0min 0.000s", "3d 4h 5min 6.789s"; negative values get a minus sign.
std::string FormatDuration(std::int64_t microseconds);

/// A difference: FormatDuration with a "+" before a positive one.
std::string FormatChange(std::int64_t microseconds);

/// @p text with every byte that is a control character or not part of
/// valid UTF-8 written as \xNN, so that a name cannot move a terminal's
/// cursor or change its colours.
std::string TerminalText(std::string_view text);

/// @p text with every byte that is not part of valid UTF-8 replaced by
/// U+FFFD, for output that must be UTF-8 (JSON, SVG).
std::string ValidUtf8(std::string_view text);

/// @p text for SVG character data or an attribute value: valid UTF-8, the
/// control characters XML forbids replaced, and & < > " ' escaped.
std::string XmlText(std::string_view text);

/// The characters (code points) of the UTF-8 @p text.
std::size_t DisplayWidth(std::string_view text);

/// @p text shortened to at most @p width characters; a shortened text
/// ends in "…".
std::string FitWidth(std::string_view text, std::size_t width);

/// @p text followed by spaces up to @p width characters.
std::string PadRight(std::string_view text, std::size_t width);

/// Spaces up to @p width characters, then @p text.
std::string PadLeft(std::string_view text, std::size_t width);

/// Writes @p value as compact JSON and a line end.
void WriteJson(const boost::json::value& value, std::ostream& out);

}  // namespace orvane::analyze
