#include "ZelkKernel/ProcessExitWatch.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZelkKernel {
namespace {

constexpr long kMicrosecondsPerMillisecond = 1000;

// The whole period rounded up to milliseconds, poll's unit.
int Milliseconds(std::chrono::microseconds period) {
  return static_cast<int>((period.count() + kMicrosecondsPerMillisecond - 1) /
                          kMicrosecondsPerMillisecond);
}

}  // namespace

ProcessExitWatch::ProcessExitWatch(pid_t child)
    : processDescriptor_(static_cast<int>(syscall(SYS_pidfd_open, child, 0))) {}

ProcessExitWatch::~ProcessExitWatch() {
  if (processDescriptor_ >= 0) close(processDescriptor_);
}

void ProcessExitWatch::WaitAtMost(std::chrono::microseconds period) const {
  if (processDescriptor_ < 0) {
    usleep(static_cast<useconds_t>(period.count()));
    return;
  }
  // A process descriptor becomes readable when its process ends.
  pollfd exitEvent{processDescriptor_, POLLIN, 0};
  poll(&exitEvent, 1, Milliseconds(period));
}

}  // namespace ZelkKernel
