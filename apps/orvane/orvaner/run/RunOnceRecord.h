/// The run-once record on the boot bank: the plugin name-and-version keys of
/// the run-once plugins that have run, kept in one gzip-compressed line.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "orvane/FixedPaths.h"

namespace orvane {

/// The text that the record's one line starts with.
inline constexpr const char* kRunOnceRecordPrefix = "orvane.run-once=";

/// A record file larger than this is refused: a key is a few dozen bytes.
inline constexpr std::size_t kMaxRunOnceRecordSize = std::size_t{1024} * 1024;
/// The longest decompressed line read, so that a small file cannot
/// decompress into the boot's whole memory.
inline constexpr std::size_t kMaxRunOnceLineSize = std::size_t{16} * 1024 * 1024;

/// Adds the keys of the record at @p path to @p runOnceSet. The line must
/// start with kRunOnceRecordPrefix; it is then split on ",", each item
/// trimmed of white space (current locale) and the empty ones skipped. A
/// missing, unreadable or empty file, or one whose content starts with
/// anything else, adds nothing; one that is not a regular file, or cannot be
/// read once opened, adds nothing either, with a warning at level 3. Throws
/// Exception naming @p path and what went wrong when the gzip data is
/// corrupt or truncated, or the file or its line is larger than its bound.
void ReadRunOnceRecord(std::set<std::string>& runOnceSet,
                       const std::string& path = paths::kRunOnceRecord);

/// Replaces the file at @p path with one gzip member (default level, no file
/// name, no comment, modification time 0) holding the line
/// kRunOnceRecordPrefix, every key of @p runOnceSet followed by ",", and a
/// line end. Throws Exception naming @p path and the system error when the
/// file cannot be opened or written.
void WriteRunOnceRecord(const std::set<std::string>& runOnceSet,
                        const std::string& path = paths::kRunOnceRecord);

/// The line that WriteRunOnceRecord compresses, for @p runOnceSet.
std::string RunOnceRecordLine(const std::set<std::string>& runOnceSet);

}  // namespace orvane
