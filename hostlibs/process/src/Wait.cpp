#include "process/Wait.h"

#include <sys/wait.h>

#include <cerrno>

namespace process {

ExitStatus WaitForExit(pid_t child) {
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited < 0) return ExitStatus::NotCollected(errno);
  return ExitStatus::FromWaitStatus(status);
}

std::optional<ExitStatus> PollExit(pid_t child) {
  int status = -1;
  pid_t reported;
  do {
    reported = ::waitpid(child, &status, WNOHANG);
  } while (reported < 0 && errno == EINTR);
  if (reported == 0) return std::nullopt;
  if (reported < 0) return ExitStatus::NotCollected(errno);
  return ExitStatus::FromWaitStatus(status);
}

}  // namespace process
