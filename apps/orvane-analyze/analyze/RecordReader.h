/// Reads a run record (JSON Lines, doc/RUN-RECORD.md) into a Record,
/// checking as it goes that the file is one: a header first, a schema this
/// reader knows, every line a complete JSON object with the fields its
/// type needs, events only of vertices the graph named.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "analyze/Record.h"

namespace orvane::analyze {

/// The schema of the record format this reader knows.
inline constexpr std::int64_t kRecordSchema = 1;

/// The largest record read, in bytes: far beyond a boot of 100,000 plugins.
inline constexpr std::size_t kMaxRecordSize = std::size_t{1} << 30;

/// Reads the record at @p path. Throws RecordError, naming the file and
/// what is wrong, for a file that cannot be read, is empty, is cut off
/// (its last line not a complete JSON object), damaged (a line before the
/// last that does not parse or lacks a field) or foreign (no header first,
/// an unknown schema).
Record ReadRecord(const std::string& path);

/// Reads a record from @p text; errors name it @p name.
Record ParseRecord(std::string_view text, const std::string& name);

}  // namespace orvane::analyze
