// Reading what a program in a sandbox printed: its lines, and the messages of
// orvane's timestamped standard-output log lines.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orvane::testing {

/// The lines of @p text, without their line ends.
std::vector<std::string> Lines(const std::string& text);

/// The messages of the "<time>Z orvane: <message>" lines of @p text, in
/// order, without their time stamps; other lines are left out.
std::vector<std::string> LogMessages(const std::string& text);

/// Where @p entry first stands in @p entries; their count when it is absent.
std::size_t Position(const std::vector<std::string>& entries, const std::string& entry);

/// @p items as a JSON list of strings (the items are not escaped).
std::string JsonList(const std::vector<std::string>& items);

}  // namespace orvane::testing
