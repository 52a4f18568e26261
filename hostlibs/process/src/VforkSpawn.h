// Starting a program with a child that borrows this process's memory until
// it executes (vfork semantics), for the programs run to their end.
#pragma once

#include <sys/types.h>

#include "process/Spawner.h"

namespace process::detail {

/// Reads every signal's action once; from then on a child resets only the
/// signals found ignored or handled (see PromiseFixedSignalActions).
void FixSignalActions();

/// Whether SpawnWithVfork can start @p program: only a program named by a
/// path (with a "/"; a bare name needs the PATH search, which stays
/// posix_spawnp's), and not in a build under a sanitizer, whose run-time
/// cannot follow a child that shares its memory.
bool CanSpawnWithVfork(const Program& program);

/// Starts @p program as posix_spawn would with the same settings (its three
/// standard streams placed in order, every other descriptor closed, the
/// signals reset as the program asks), but cheaper: the child is made by
/// clone with CLONE_VM and CLONE_VFORK on a stack this thread keeps from one
/// spawn to the next, so nothing is mapped, unmapped or copied per program,
/// and this thread waits only until the child has executed. Returns 0 with
/// the child's pid in @p child, or the errno of the step that failed (the
/// child, if any, already reaped), as posix_spawn does.
int SpawnWithVfork(const Program& program, char* const* environment, pid_t* child);

}  // namespace process::detail
