#include "ZelkuserCompat/Spawn.h"

#include <errno.h>

#include <atomic>
#include <cstring>

namespace {

constexpr int kCallCount = 3;

std::atomic<ZelkuserStatus>& InjectedFailure(ZelkuserCompat_Call call) {
  static std::atomic<ZelkuserStatus> failures[kCallCount] = {};
  return failures[static_cast<int>(call)];
}

// The failure injected for @p call, consumed by this call; ZELKUSER_OK when
// there is none.
ZelkuserStatus TakeInjectedFailure(ZelkuserCompat_Call call) {
  return InjectedFailure(call).exchange(ZELKUSER_OK);
}

}  // namespace

ZelkuserStatus ZelkuserCompat_SpawnFileActionsInit(ZelkuserCompat_SpawnFileActions* fileActions,
                                                   int capacity) {
  if (ZelkuserStatus injected = TakeInjectedFailure(ZelkuserCompat_Call::SpawnFileActionsInit)) {
    return injected;
  }
  if (fileActions == nullptr || capacity <= 0) {
    return EINVAL;
  }
  if (int status = posix_spawn_file_actions_init(&fileActions->actions); status != 0) {
    return status;
  }
  fileActions->capacity = capacity;
  fileActions->count = 0;
  fileActions->initialised = true;
  return ZELKUSER_OK;
}

ZelkuserStatus ZelkuserCompat_SpawnFileActionsAddDup2(ZelkuserCompat_SpawnFileActions* fileActions,
                                                      int descriptor, int childDescriptor) {
  if (ZelkuserStatus injected = TakeInjectedFailure(ZelkuserCompat_Call::SpawnFileActionsAddDup2)) {
    return injected;
  }
  if (fileActions == nullptr || !fileActions->initialised) {
    return EINVAL;
  }
  if (fileActions->count >= fileActions->capacity) {
    return ENOSPC;
  }
  // posix_spawn clears close-on-exec when both descriptors are the same,
  // which is what sharing a descriptor with the child needs.
  if (int status =
          posix_spawn_file_actions_adddup2(&fileActions->actions, descriptor, childDescriptor);
      status != 0) {
    return status;
  }
  ++fileActions->count;
  return ZELKUSER_OK;
}

ZelkuserStatus ZelkuserCompat_SpawnFileActionsDestroy(
    ZelkuserCompat_SpawnFileActions* fileActions) {
  if (fileActions == nullptr || !fileActions->initialised) {
    return EINVAL;
  }
  fileActions->initialised = false;
  return posix_spawn_file_actions_destroy(&fileActions->actions);
}

ZelkuserStatus ZelkuserCompat_Spawn(pid_t* pid, const char* path,
                                    const ZelkuserCompat_SpawnFileActions* fileActions,
                                    char* const argv[], char* const envp[]) {
  if (ZelkuserStatus injected = TakeInjectedFailure(ZelkuserCompat_Call::Spawn)) {
    return injected;
  }
  if (pid == nullptr || path == nullptr || argv == nullptr ||
      (fileActions != nullptr && !fileActions->initialised)) {
    return EINVAL;
  }
  return posix_spawn(pid, path, fileActions != nullptr ? &fileActions->actions : nullptr, nullptr,
                     argv, envp);
}

const char* ZelkuserStatus_CodeToString(ZelkuserStatus status, char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) {
    return buffer;
  }
  // The GNU strerror_r may return a static text instead of filling the buffer.
  const char* text = status == ZELKUSER_OK ? "Success" : strerror_r(status, buffer, size);
  if (text != buffer) {
    std::strncpy(buffer, text, size - 1);
    buffer[size - 1] = '\0';
  }
  return buffer;
}

void ZelkuserCompat_InjectFailure(ZelkuserCompat_Call call, ZelkuserStatus status) {
  InjectedFailure(call).store(status);
}
