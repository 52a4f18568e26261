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

}  // namespace

// Whether a stat can stand in for a read. The stamps (device, inode, size,
// modification and change times) are those of the open descriptor the last
// text was read from, so equal stamps mean the same file, unchanged since
// then, with one exception: a write made within the same tick of the file
// system's clock as the one before it leaves the same times, and, with the
// same size, the same stamps. So a stamp only counts once the file's last
// change lay at least the settling margin before the read that took it
// began: a change made after that read began is stamped at least at the
// read's start less one tick of the coarsest file system clock, which the
// margin exceeds, and so differently. Until then every call reads the text
// and compares it with the last one, as for a file written moments before
// the boot. Not covered: the real-time clock set back by more than the
// margin, followed by a rewrite of the same size that lands on the very
// same times.
std::shared_ptr<const std::vector<DebugEntry>> DebugConfigurationCache::Read(
    const std::string& path) {
  bool stampCanStandIn = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stampCanStandIn = last_.entries && last_.stampIdentifiesText;
  }
  // While the last text's stamp cannot stand in for it, the file is read
  // anyway: no stat first.
  if (hostfile::FileStamp stamp; stampCanStandIn && hostfile::StampRegularFile(path, stamp)) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (last_.entries && last_.stampIdentifiesText && last_.stamp == stamp) {
      return Reuse();
    }
  }
  // Taken before the file is opened: a change made after it is stamped
  // later than this.
  const timespec readStart = hostfile::RealTimeNow();
  hostfile::FileStamp stamp;
  hostfile::FileContent file = hostfile::ReadHostFile(path, kMaxDebugConfigurationSize, stamp);
  if (!file.Ok()) {
    if (file.status != hostfile::ReadStatus::CannotOpen) {
      WarnOfUnreadableConfiguration(path, file.Problem());
    }
    return std::make_shared<const std::vector<DebugEntry>>();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  ++textReads_;
  // The loader calls once per plugin file: a text equal to the one parsed
  // last time takes its entries and malformed lines from then.
  if (!last_.entries || last_.content != file.text) {
    last_ = Parse(std::move(file.text));
  }
  last_.stamp = stamp;
  last_.stampIdentifiesText = stamp.ChangedBefore(readStart, settlingMargin_);
  return Reuse();
}

std::shared_ptr<const std::vector<DebugEntry>> DebugConfigurationCache::Reuse() const {
  for (const auto& [lineNumber, line] : last_.malformed) {
    Log_Level(LOG_LEVEL_INFO, "ignoring malformed debug entry at line %d: %s\n", lineNumber,
              line.c_str());
  }
  return last_.entries;
}

DebugConfigurationCache::Parsed DebugConfigurationCache::Parse(std::string content) {
  Parsed parsed;
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

std::size_t DebugConfigurationCache::TextReads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return textReads_;
}

DebugConfigurationCache& DebugConfigurationCache::Instance() {
  // Never destroyed: a loader on another thread may still read while the
  // process exits.
  static auto* cache = new DebugConfigurationCache;
  return *cache;
}

std::shared_ptr<const std::vector<DebugEntry>> ReadDebugEntries(const std::string& path) {
  return DebugConfigurationCache::Instance().Read(path);
}

void ReadDebugConfiguration(std::vector<DebugEntry>& entries, const std::string& path) {
  const std::shared_ptr<const std::vector<DebugEntry>> read = ReadDebugEntries(path);
  entries.insert(entries.end(), read->begin(), read->end());
}

}  // namespace orvane
