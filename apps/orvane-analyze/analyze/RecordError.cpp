#include "analyze/RecordError.h"

namespace orvane::analyze {

RecordError::RecordError(const std::string& file, const std::string& problem)
    : std::runtime_error(file + ": " + problem) {}

}  // namespace orvane::analyze
