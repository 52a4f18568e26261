#include "orvaner/RunProgram.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log/Log.h"
#include "orvane/FixedPaths.h"
#include "orvaner/RedirectStdio.h"

namespace orvane {
namespace {

constexpr int kExecFailureStatus = 1;

// Everything above the standard streams. close_range does it in one call;
// the loop is for kernels without it, where the limit can be large.
void CloseInheritedDescriptors() {
  const long openMax = sysconf(_SC_OPEN_MAX);
  if (openMax <= STDERR_FILENO + 1) return;
  if (close_range(STDERR_FILENO + 1, static_cast<unsigned>(openMax - 1), 0) == 0) return;
  for (long descriptor = STDERR_FILENO + 1; descriptor < openMax; ++descriptor) {
    close(static_cast<int>(descriptor));
  }
}

[[noreturn]] void ExecuteInChild(char* const argv[], char* const environment[]) {
  CloseInheritedDescriptors();
  RedirectStdio(paths::kDevNull);
  execve(argv[0], argv, environment);
  Log_Level(LOG_LEVEL_ERROR, "execve(%s) failure: %s\n", argv[0], std::strerror(errno));
  _exit(kExecFailureStatus);
}

}  // namespace

bool RunProgram(char* const argv[], char* const environment[]) {
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) ExecuteInChild(argv, environment);

  int status = 0;
  pid_t waited;
  do {
    waited = waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited != child) return false;
  if (WIFSIGNALED(status)) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace orvane
