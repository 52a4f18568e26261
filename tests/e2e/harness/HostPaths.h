// The host paths the end-to-end tests meet inside a sandbox, in one place:
// the installed programs, orvane's own fixed paths (shared with the program
// through FixedPaths.h) and the file the tests' plugins record into.
#pragma once

#include <string>
#include <string_view>

#include "orvane/FixedPaths.h"

namespace orvane::testing {

// The installed programs.
inline constexpr const char* kOrvane = "/usr/bin/orvane";
inline constexpr const char* kQorcli = "/usr/bin/qorcli";
inline constexpr const char* kAnalyze = "/usr/bin/orvane-analyze";
inline constexpr const char* kNativeExecutor = paths::kNativeExecutor;

// What orvane reads.
inline constexpr const char* kPluginDirectory = paths::kPluginDirectory;
inline constexpr const char* kDebugConfiguration = paths::kDebugConfiguration;
inline constexpr const char* kHostProfile = paths::kHostProfile;
inline constexpr const char* kStatelessMarker = paths::kStatelessMarker;
inline constexpr const char* kServiceTool = paths::kChkconfig;

// What orvane writes.
inline constexpr const char* kExecutorSocket = paths::kExecutorSocket;
inline constexpr const char* kExecutorLog = paths::kExecutorOutputLog;
inline constexpr const char* kProfilingLog = paths::kProfilingLog;
inline constexpr const char* kRunOnceRecord = paths::kRunOnceRecord;
inline constexpr const char* kRecordDirectory = paths::kRunRecordDirectory;
inline constexpr const char* kLastRecord = "/var/log/orvane/last.jsonl";

/// Where the tests' injections and command programs append a line each.
inline constexpr const char* kRecord = "/tmp/record";

/// A file of the plugin directory.
inline std::string PluginFile(std::string_view name) {
  return std::string(kPluginDirectory) + "/" + std::string(name);
}

}  // namespace orvane::testing
