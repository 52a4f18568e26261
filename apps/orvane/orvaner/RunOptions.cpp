#include "orvaner/RunOptions.h"

#include <ctime>

namespace orvane {

RunOptions::RunOptions() : randomSeed(std::time(nullptr)) {}

RunOptions& RunOptions::Instance() {
  // Initialised once under the compiler's guard lock; never destroyed, so
  // that threads still reading options while the process exits find it.
  static RunOptions* instance = new RunOptions;
  return *instance;
}

}  // namespace orvane
