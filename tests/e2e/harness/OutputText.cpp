#include "OutputText.h"

#include <algorithm>
#include <regex>
#include <sstream>

namespace orvane::testing {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> LogMessages(const std::string& text) {
  static const std::regex kLogLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z orvane: (.*))");
  std::vector<std::string> messages;
  for (const std::string& line : Lines(text)) {
    std::smatch match;
    if (std::regex_match(line, match, kLogLine)) messages.push_back(match[1]);
  }
  return messages;
}

std::size_t Position(const std::vector<std::string>& entries, const std::string& entry) {
  return std::find(entries.begin(), entries.end(), entry) - entries.begin();
}

std::string JsonList(const std::vector<std::string>& items) {
  std::string list = "[";
  for (const std::string& item : items) {
    list += (list.size() > 1 ? ", \"" : "\"") + item + "\"";
  }
  return list + "]";
}

}  // namespace orvane::testing
