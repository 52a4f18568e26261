#include "orvaner/DebugConfiguration.h"

#include <boost/algorithm/string/trim.hpp>
#include <boost/token_functions.hpp>
#include <boost/tokenizer.hpp>
#include <fstream>
#include <iterator>
#include <utility>

#include "log/Log.h"

namespace orvane {
namespace {

constexpr char kEscape = '\\';
constexpr char kFieldSeparator = ':';
constexpr char kBarrierSeparator = ',';
constexpr const char* kQuotes = "\"'";
constexpr std::size_t kFieldCount = 4;

using Splitter = boost::escaped_list_separator<char>;
using Tokens = boost::tokenizer<Splitter>;

// The splitter only reports a bad escape while the tokens are walked, so the
// whole text is split here, inside the caller's try.
std::vector<std::string> Split(const std::string& text, char separator) {
  Tokens tokens(text, Splitter(std::string(1, kEscape), std::string(1, separator), kQuotes));
  return {tokens.begin(), tokens.end()};
}

// The entry a trimmed, non-empty line describes; false when the line is not
// a valid entry.
bool ParseDebugEntry(const std::string& line, DebugEntry& entry) {
  try {
    std::vector<std::string> fields = Split(line, kFieldSeparator);
    if (fields.size() != kFieldCount) {
      return false;
    }
    entry.name = fields[0];
    entry.requiredBarriers = Split(fields[1], kBarrierSeparator);
    entry.providedBarriers = Split(fields[2], kBarrierSeparator);
    entry.command = fields[3];
    return true;
  } catch (const boost::escaped_list_error&) {
    // An escape the splitter does not know ("\x") or a trailing "\": the
    // line cannot be read as intended, so it counts as malformed rather than
    // ending the boot.
    return false;
  }
}

}  // namespace

void ReadDebugConfiguration(std::vector<DebugEntry>& entries, const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    return;
  }
  int lineNumber = 0;
  for (std::string line; std::getline(file, line);) {
    ++lineNumber;
    boost::algorithm::trim(line);
    if (line.empty()) {
      continue;
    }
    DebugEntry entry;
    if (ParseDebugEntry(line, entry)) {
      entries.push_back(std::move(entry));
    } else {
      Log_Level(LOG_LEVEL_INFO, "ignoring malformed debug entry at line %d: %s\n", lineNumber,
                line.c_str());
    }
  }
}

}  // namespace orvane
