/// Waiting a bounded time for a child process to end, without reaping it.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace ZelkKernel {

/// Lets a caller that polls a child with waitpid sleep between two polls
/// only as long as the child is still running: WaitAtMost returns early
/// when the child ends. Where the kernel offers no process descriptor it
/// sleeps the whole period. Never reaps the child.
class ProcessExitWatch {
 public:
  explicit ProcessExitWatch(pid_t child);
  ~ProcessExitWatch();
  ProcessExitWatch(const ProcessExitWatch&) = delete;
  ProcessExitWatch& operator=(const ProcessExitWatch&) = delete;

  /// Returns after @p period, or earlier once the child has ended or a
  /// signal interrupted the wait.
  void WaitAtMost(std::chrono::microseconds period) const;

 private:
  int processDescriptor_;  // -1 when the kernel gave none
};

}  // namespace ZelkKernel
