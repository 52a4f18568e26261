// Reading what a program in a sandbox printed: its lines, and the messages of
// orvane's timestamped standard-output log lines.
#pragma once

#include <string>
#include <vector>

namespace orvane::testing {

/// The lines of @p text, without their line ends.
std::vector<std::string> Lines(const std::string& text);

/// The messages of the "<time>Z orvane: <message>" lines of @p text, in
/// order, without their time stamps; other lines are left out.
std::vector<std::string> LogMessages(const std::string& text);

}  // namespace orvane::testing
