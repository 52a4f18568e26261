#include "orvaner/RedirectStdio.h"

#include <fcntl.h>
#include <unistd.h>

#include "log/Log.h"
#include "orvane/FixedPaths.h"

namespace orvane {
namespace {

constexpr mode_t kLogFileMode = 0644;

void RedirectStdinFromDevNull() {
  const int devNull = open(paths::kDevNull, O_RDWR);
  if (devNull < 0) {
    Warning("Failed opening %s", paths::kDevNull);
    return;
  }
  if (dup2(devNull, STDIN_FILENO) != STDIN_FILENO) {
    Warning("Failed redirecting stdin to %s", paths::kDevNull);
  }
  // /dev/null may itself have been given descriptor 0, which must stay open.
  if (devNull != STDIN_FILENO) close(devNull);
}

}  // namespace

void RedirectStdio(const char* path) {
  RedirectStdinFromDevNull();
  const int log = open(path, O_WRONLY | O_CREAT | O_APPEND, kLogFileMode);
  if (log < 0) {
    Warning("Failed opening log file %s", path);
    return;
  }
  if (dup2(log, STDOUT_FILENO) != STDOUT_FILENO) {
    Warning("Failed redirecting stdout to %s", path);
  }
  if (dup2(log, STDERR_FILENO) != STDERR_FILENO) {
    Warning("Failed redirecting stderr to %s", path);
  }
  if (log != STDOUT_FILENO && log != STDERR_FILENO) close(log);
}

}  // namespace orvane
