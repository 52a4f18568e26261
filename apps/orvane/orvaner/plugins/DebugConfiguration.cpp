#include "orvaner/plugins/DebugConfiguration.h"

#include <boost/algorithm/string/trim.hpp>
#include <boost/token_functions.hpp>
#include <boost/tokenizer.hpp>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <utility>

#include "hostfile/HostFile.h"
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

// A configuration that is there but cannot be read as one (a FIFO, a
// directory, a runaway file) gives no entries, like a missing one, but is
// worth a warning: once for each problem, as the loader reads the file once
// per plugin file.
void WarnOfUnreadableConfiguration(const std::string& path, const std::string& problem) {
  static std::mutex warnedMutex;
  static std::string lastWarning;
  const std::string warning = path + ": " + problem;
  std::lock_guard<std::mutex> lock(warnedMutex);
  if (warning == lastWarning) return;
  lastWarning = warning;
  Log_Level(LOG_LEVEL_WARNING, "ignoring the debug configuration %s\n", warning.c_str());
}

/// A configuration text and what it says: its entries and its malformed
/// lines (number and trimmed text), in file order.
struct ParsedConfiguration {
  std::string content;
  std::shared_ptr<const std::vector<DebugEntry>> entries;
  std::vector<std::pair<int, std::string>> malformed;
};

ParsedConfiguration Parse(std::string content) {
  ParsedConfiguration parsed;
  std::vector<DebugEntry> entries;
  std::istringstream lines(content);
  int lineNumber = 0;
  for (std::string line; std::getline(lines, line);) {
    ++lineNumber;
    boost::algorithm::trim(line);
    if (line.empty()) {
      continue;
    }
    DebugEntry entry;
    if (ParseDebugEntry(line, entry)) {
      entries.push_back(std::move(entry));
    } else {
      parsed.malformed.emplace_back(lineNumber, std::move(line));
    }
  }
  parsed.content = std::move(content);
  parsed.entries = std::make_shared<const std::vector<DebugEntry>>(std::move(entries));
  return parsed;
}

}  // namespace

std::shared_ptr<const std::vector<DebugEntry>> ReadDebugEntries(const std::string& path) {
  hostfile::FileContent file = hostfile::ReadHostFile(path, kMaxDebugConfigurationSize);
  if (!file.Ok()) {
    if (file.status != hostfile::ReadStatus::CannotOpen) {
      WarnOfUnreadableConfiguration(path, file.Problem());
    }
    return std::make_shared<const std::vector<DebugEntry>>();
  }
  std::string& content = file.text;
  // The file is read afresh on every call, but the loader calls once per
  // plugin file: when the text is the one parsed last time, its entries and
  // its malformed lines are taken from then instead of being parsed again.
  static std::mutex lastReadMutex;
  static ParsedConfiguration lastRead;
  std::lock_guard<std::mutex> lock(lastReadMutex);
  if (!lastRead.entries || lastRead.content != content) {
    lastRead = Parse(std::move(content));
  }
  for (const auto& [lineNumber, line] : lastRead.malformed) {
    Log_Level(LOG_LEVEL_INFO, "ignoring malformed debug entry at line %d: %s\n", lineNumber,
              line.c_str());
  }
  return lastRead.entries;
}

void ReadDebugConfiguration(std::vector<DebugEntry>& entries, const std::string& path) {
  const std::shared_ptr<const std::vector<DebugEntry>> read = ReadDebugEntries(path);
  entries.insert(entries.end(), read->begin(), read->end());
}

}  // namespace orvane
