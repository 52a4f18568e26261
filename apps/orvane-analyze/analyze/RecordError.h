/// The one error a record reader raises: the record cannot be used.
#pragma once

#include <stdexcept>
#include <string>

namespace orvane::analyze {

/// A record that is missing, empty, cut off, damaged or not a run record.
/// The message is one line: the file, then what is wrong with it.
class RecordError : public std::runtime_error {
 public:
  RecordError(const std::string& file, const std::string& problem);
};

}  // namespace orvane::analyze
