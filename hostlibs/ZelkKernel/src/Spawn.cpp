#include "ZelkKernel/Spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "ZelkKernel/SpawnSettings.h"

namespace ZelkKernel {
namespace {

/// Copies of the caller's descriptors that lie inside the range the new
/// process's descriptors are moved to, so that placing one descriptor can
/// never overwrite another that is still to be placed. Closed on the way out.
class SafeSources {
 public:
  ~SafeSources() {
    for (int copy : copies_) close(copy);
  }

  /// @p descriptor, or a close-on-exec copy of it at @p floor or above.
  /// -1 with errno set when no copy can be made.
  int Source(int descriptor, int floor) {
    if (descriptor >= floor) return descriptor;
    const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, floor);
    if (copy >= 0) copies_.push_back(copy);
    return copy;
  }

 private:
  std::vector<int> copies_;
};

/// A fresh process: no blocked signal, every signal at its default action,
/// whatever the calling thread had set.
int ResetSignals(posix_spawnattr_t* attributes, short& flags) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  flags |= POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (const int error = posix_spawnattr_setsigmask(attributes, &none); error != 0) return error;
  return posix_spawnattr_setsigdefault(attributes, &all);
}

}  // namespace

int ZelkKernel_Spawn(const char* path, char* const argv[], char* const envp[], int workingDirectory,
                     const int descriptors[], SpawnRequest* request) {
  if (path == nullptr || argv == nullptr || envp == nullptr || request == nullptr ||
      request->processId == nullptr || (request->descriptorCount > 0 && descriptors == nullptr)) {
    return -EFAULT;
  }
  if (request->flags != 0) return -EINVAL;
  // posix_spawn cannot change users: the new process may only take the
  // caller's real ids (dropping effective ones that differ from them).
  if (request->userId != getuid() || request->groupId != getgid()) return -EPERM;

  SpawnSettings plan;
  if (const int error = plan.InitError(); error != 0) return -error;
  short flags = 0;
  if (geteuid() != getuid() || getegid() != getgid()) flags |= POSIX_SPAWN_RESETIDS;
  if (const int error = ResetSignals(plan.Attributes(), flags); error != 0) return -error;
  if (const int error = posix_spawnattr_setflags(plan.Attributes(), flags); error != 0) {
    return -error;
  }

  // The working directory first, while its descriptor is certainly intact.
  posix_spawn_file_actions_t* actions = plan.Actions();
  if (const int error = posix_spawn_file_actions_addfchdir_np(actions, workingDirectory);
      error != 0) {
    return -error;
  }
  const int count = static_cast<int>(request->descriptorCount);
  SafeSources sources;
  for (int target = 0; target < count; ++target) {
    const int source = sources.Source(descriptors[target], count);
    if (source < 0) return -errno;
    // A dup2 onto itself would keep close-on-exec; from a copy it never is.
    if (const int error = posix_spawn_file_actions_adddup2(actions, source, target); error != 0) {
      return -error;
    }
  }
  if (const int error = posix_spawn_file_actions_addclosefrom_np(actions, count); error != 0) {
    return -error;
  }

  pid_t child = 0;
  if (const int error = posix_spawn(&child, path, actions, plan.Attributes(), argv, envp);
      error != 0) {
    return -error;
  }
  *request->processId = child;
  return 0;
}

}  // namespace ZelkKernel
