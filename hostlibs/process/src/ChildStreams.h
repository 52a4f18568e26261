// What a child of the spawner does to its standard streams before it
// executes a program, shared by the forked child and the vfork-like one.
// Only system calls: safe in a child that borrows the parent's memory.
#pragma once

#include <sys/types.h>

#include "process/Spawner.h"

namespace process::detail {

inline constexpr const char* kNullDevice = "/dev/null";
/// The mode of an output file /dev/null's open would create.
inline constexpr mode_t kCreatedOutputMode = 0644;

/// Puts @p stream on @p target as posix_spawn's file actions would:
/// /dev/null opened onto it (input read-write, output appended), or a
/// descriptor duplicated onto it; a descriptor already in place loses
/// close-on-exec. False, with errno, when it cannot.
bool PlaceStream(const Stream& stream, int target);

}  // namespace process::detail
