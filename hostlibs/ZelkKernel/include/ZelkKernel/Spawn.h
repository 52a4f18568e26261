/// The host kernel's spawn call: one new process, made in one step, running
/// a program with a chosen working directory, standard descriptors, user,
/// group and environment. The caller is never forked.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ZelkKernel {

/// What the caller asks of the new process, as the kernel reads it: packed,
/// no padding.
struct __attribute__((packed)) SpawnRequest {
  /// How many entries the descriptor array has; entry i becomes descriptor i.
  std::uint32_t descriptorCount;
  std::uint32_t userId;
  std::uint32_t groupId;
  /// No flag is defined; must be 0.
  std::uint8_t flags;
  /// Where the kernel stores the new process id.
  std::int32_t* processId;
};
static_assert(sizeof(SpawnRequest) == 21, "the spawn request is packed");

/// The kernel's spawn call (number 1025 on the host). Starts @p path with
/// @p argv and @p envp (both null-terminated) in the directory open as
/// @p workingDirectory, with @p descriptors[i] as its descriptor i for every
/// i below request.descriptorCount and no other descriptor open, under
/// request.userId and request.groupId, with an empty signal mask and every
/// signal at its default action. The new process is a child of the caller.
///
/// Returns 0 and stores the process id; otherwise a negated error number:
/// the program cannot be executed (-ENOENT, -EACCES, ...), an unknown flag
/// (-EINVAL). On Linux the process can only run as the caller's real user
/// and group; anything else fails with -EPERM.
int ZelkKernel_Spawn(const char* path, char* const argv[], char* const envp[], int workingDirectory,
                     const int descriptors[], SpawnRequest* request);

}  // namespace ZelkKernel
