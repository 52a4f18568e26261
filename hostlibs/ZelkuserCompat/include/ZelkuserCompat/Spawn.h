/// The host's user-space kernel library on Linux: starting a program with a
/// list of file actions (here only dup2), mapped onto posix_spawn.
///
/// Every call returns a ZelkuserStatus: ZELKUSER_OK, or the errno value that
/// explains the failure. ZelkuserStatus_CodeToString words a status.
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <cstddef>

/// The outcome of a call: ZELKUSER_OK or an errno value.
using ZelkuserStatus = int;
inline constexpr ZelkuserStatus ZELKUSER_OK = 0;

/// A list of file actions with room for a number of actions fixed when it is
/// initialised. Use only through the calls below.
struct ZelkuserCompat_SpawnFileActions {
  posix_spawn_file_actions_t actions;
  int capacity = 0;
  int count = 0;
  bool initialised = false;
};

/// Makes @p fileActions an empty list with room for @p capacity actions.
/// EINVAL when the capacity is not positive.
ZelkuserStatus ZelkuserCompat_SpawnFileActionsInit(ZelkuserCompat_SpawnFileActions* fileActions,
                                                   int capacity);

/// Adds an action that makes @p descriptor the child's @p childDescriptor.
/// When both are the same the descriptor is simply inherited, even if it is
/// marked close-on-exec. ENOSPC when the list is full, EBADF for a
/// descriptor out of range, EINVAL for a list that was not initialised.
ZelkuserStatus ZelkuserCompat_SpawnFileActionsAddDup2(ZelkuserCompat_SpawnFileActions* fileActions,
                                                      int descriptor, int childDescriptor);

/// Releases the list. EINVAL for a list that was not initialised.
ZelkuserStatus ZelkuserCompat_SpawnFileActionsDestroy(ZelkuserCompat_SpawnFileActions* fileActions);

/// Starts the program at @p path with @p argv and @p envp, after applying
/// @p fileActions (which may be null) in the child, and stores its process
/// id in @p pid. Fails with the reason the program could not be started,
/// such as ENOENT or EACCES; the caller waits for the child with waitpid.
ZelkuserStatus ZelkuserCompat_Spawn(pid_t* pid, const char* path,
                                    const ZelkuserCompat_SpawnFileActions* fileActions,
                                    char* const argv[], char* const envp[]);

/// Writes the text of @p status into @p buffer of @p size bytes, cut to fit
/// and always terminated, and returns @p buffer.
const char* ZelkuserStatus_CodeToString(ZelkuserStatus status, char* buffer, std::size_t size);

/// The calls a test can make fail.
enum class ZelkuserCompat_Call {
  SpawnFileActionsInit,
  SpawnFileActionsAddDup2,
  Spawn,
};

/// Makes the next @p call fail with @p status without doing anything, so
/// that tests can reach failures the system never gives (a list that cannot
/// be allocated). Process-wide; ZELKUSER_OK withdraws a pending failure.
void ZelkuserCompat_InjectFailure(ZelkuserCompat_Call call, ZelkuserStatus status);
