#include "process/ExitStatus.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstring>

namespace process {
namespace {

constexpr int kExitCodeMask = 0xff;

}  // namespace

ExitStatus ExitStatus::FromWaitStatus(int waitStatus) {
  ExitStatus status;
  status.waitStatus_ = waitStatus;
  if (WIFEXITED(waitStatus)) {
    status.kind_ = Kind::Exited;
    status.code_ = WEXITSTATUS(waitStatus);
  } else if (WIFSIGNALED(waitStatus)) {
    status.kind_ = Kind::Killed;
    status.signal_ = WTERMSIG(waitStatus);
  } else {
    status.kind_ = Kind::Other;
  }
  return status;
}

ExitStatus ExitStatus::ExitedWith(int code) {
  return FromWaitStatus(W_EXITCODE(code & kExitCodeMask, 0));
}

ExitStatus ExitStatus::KilledBy(int signal) { return FromWaitStatus(W_EXITCODE(0, signal)); }

ExitStatus ExitStatus::NotCollected(int error) {
  ExitStatus status;
  status.waitError_ = error;
  return status;
}

std::string ExitStatus::Text() const {
  switch (kind_) {
    case Kind::Exited: return "exited with status " + std::to_string(code_);
    case Kind::Killed: return "killed by signal " + std::to_string(signal_);
    case Kind::Other: {
      char word[16];
      std::snprintf(word, sizeof word, "%#x", static_cast<unsigned>(waitStatus_));
      return std::string("ended with wait status ") + word;
    }
    case Kind::NotCollected: break;
  }
  return std::string("status not collected: ") + std::strerror(waitError_);
}

}  // namespace process
