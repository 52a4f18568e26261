/// Waiting for a child process, and what a child does before it runs
/// another program.
#pragma once

#include <sys/types.h>

#include <optional>

#include "process/ExitStatus.h"

namespace process {

/// Waits until @p child ends and reaps it. An interrupted wait is retried:
/// a signal for this process says nothing about the child.
ExitStatus WaitForExit(pid_t child);

/// Reaps @p child if it has ended, without blocking: empty while it still
/// runs. An interrupted wait is asked again at once.
std::optional<ExitStatus> PollExit(pid_t child);

/// Closes every descriptor above the standard streams: in a child between
/// fork and exec, so that the program inherits nothing but its standard
/// input, output and error. One close_range call where the kernel has it,
/// a loop up to the descriptor limit where it has not. Async-signal-safe.
void CloseInheritedDescriptors();

}  // namespace process
