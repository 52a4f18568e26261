// A program's start through clone(CLONE_VM | CLONE_VFORK), the way
// posix_spawn itself starts one, without what posix_spawn repeats for every
// program: mapping and unmapping a stack for the child (the unmapping
// interrupts every processor that ran this process), and checking the
// descriptor limit for its file actions.
//
// The child runs in this process's memory until it executes, so it only
// makes system calls: no allocation, no lock, nothing another thread of
// this process could be holding. It finds every handler of this process
// still installed, so every signal stays blocked from before the clone
// until the child has put each handled one back to its default action. A
// process that promised its signal actions fixed has them read once, and
// its children reset only the signals found not at their default.
#include "VforkSpawn.h"

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "ChildStreams.h"
#include "process/Wait.h"

namespace process::detail {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitizerBuild = true;
#else
constexpr bool kSanitizerBuild = false;
#endif
#else
constexpr bool kSanitizerBuild = false;
#endif

// What a child that could not execute its program exits with, as
// posix_spawn's does; the parent reaps it and reports the error instead.
constexpr int kSpawnFailureStatus = 127;
// The child's own frames and the kernel's signal frame, never the
// program's arguments (the child passes them on without copying).
constexpr std::size_t kChildStackSize = std::size_t{64} * 1024;

/// The child's stack, mapped once per thread that spawns and kept until the
/// thread ends, with one inaccessible page below it.
class ChildStack {
 public:
  ChildStack() {
    const std::size_t guard = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* mapping = ::mmap(nullptr, guard + kChildStackSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (mapping == MAP_FAILED) return;
    ::mprotect(mapping, guard, PROT_NONE);
    mapping_ = static_cast<char*>(mapping);
    length_ = guard + kChildStackSize;
  }
  ~ChildStack() {
    if (mapping_ != nullptr) ::munmap(mapping_, length_);
  }
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;

  /// The stack's highest address, where a child starts; null when it could
  /// not be mapped.
  void* Top() const { return mapping_ == nullptr ? nullptr : mapping_ + length_; }

 private:
  char* mapping_ = nullptr;
  std::size_t length_ = 0;
};

/// What the child needs, and where it leaves the error of a failed step.
struct ChildRequest {
  const Program* program;
  char* const* environment;
  /// The spawning thread's mask before everything was blocked.
  sigset_t callerMask;
  int error;
};

bool IsHandled(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 ||
         (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

/// The signals whose action is not the default, read once when the process
/// promised to change none (PromiseFixedSignalActions).
struct FixedSignalActions {
  int ignored[NSIG];
  int ignoredCount = 0;
  int handled[NSIG];
  int handledCount = 0;
};

std::atomic<const FixedSignalActions*> fixedSignalActions{nullptr};

// Every signal to its default action (defaultSignals), or only those with a
// handler of this process (which the program's image would not have): the
// others keep what this process gives them, ignored ones included, as
// posix_spawn does. SIGKILL and SIGSTOP cannot change. A process whose
// actions are fixed resets only the signals it found not at their default.
void ResetSignalActions(bool everySignal) {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  if (const FixedSignalActions* fixed = fixedSignalActions.load(std::memory_order_acquire);
      fixed != nullptr) {
    for (int index = 0; index < fixed->handledCount; ++index) {
      ::sigaction(fixed->handled[index], &defaultAction, nullptr);
    }
    for (int index = 0; everySignal && index < fixed->ignoredCount; ++index) {
      ::sigaction(fixed->ignored[index], &defaultAction, nullptr);
    }
    return;
  }
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP) continue;
    if (!everySignal) {
      struct sigaction current {};
      if (::sigaction(signal, nullptr, &current) != 0 || !IsHandled(current)) continue;
    }
    // A signal the C library keeps for itself refuses the change; it has no
    // handler a program could inherit.
    ::sigaction(signal, &defaultAction, nullptr);
  }
}

int RunChild(void* argument) {
  auto& request = *static_cast<ChildRequest*>(argument);
  const Program& program = *request.program;
  ResetSignalActions(program.defaultSignals);
  const Stream* streams[] = {&program.streams.input, &program.streams.output,
                             &program.streams.error};
  for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target) {
    if (!PlaceStream(*streams[target], target)) {
      request.error = errno;
      ::_exit(kSpawnFailureStatus);
    }
  }
  CloseInheritedDescriptors();
  sigset_t programMask;
  if (program.defaultSignals) {
    sigemptyset(&programMask);
  } else {
    programMask = request.callerMask;
  }
  ::sigprocmask(SIG_SETMASK, &programMask, nullptr);
  ::execve(program.arguments[0], program.arguments, request.environment);
  request.error = errno;
  ::_exit(kSpawnFailureStatus);
}

ChildStack& ThisThreadsChildStack() {
  thread_local ChildStack stack;
  return stack;
}

}  // namespace

void FixSignalActions() {
  if (fixedSignalActions.load(std::memory_order_acquire) != nullptr) return;
  auto* fixed = new FixedSignalActions;  // kept for the life of the process
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (signal == SIGKILL || signal == SIGSTOP || ::sigaction(signal, nullptr, &current) != 0) {
      continue;
    }
    if (IsHandled(current)) {
      fixed->handled[fixed->handledCount++] = signal;
    } else if (current.sa_handler == SIG_IGN) {
      fixed->ignored[fixed->ignoredCount++] = signal;
    }
  }
  fixedSignalActions.store(fixed, std::memory_order_release);
}

bool CanSpawnWithVfork(const Program& program) {
  if (kSanitizerBuild) return false;
  return !program.searchPath || std::strchr(program.arguments[0], '/') != nullptr;
}

int SpawnWithVfork(const Program& program, char* const* environment, pid_t* child) {
  void* stackTop = ThisThreadsChildStack().Top();
  if (stackTop == nullptr) return ENOMEM;
  const int callerErrno = errno;
  ChildRequest request{&program, environment, {}, 0};
  sigset_t everySignal;
  sigfillset(&everySignal);
  pthread_sigmask(SIG_SETMASK, &everySignal, &request.callerMask);
  // The child stops this thread until it has executed or exited, and
  // shares its memory until then: request.error is its report.
  const pid_t pid = ::clone(&RunChild, stackTop, CLONE_VM | CLONE_VFORK | SIGCHLD, &request);
  const int cloneError = errno;
  pthread_sigmask(SIG_SETMASK, &request.callerMask, nullptr);
  errno = callerErrno;
  if (pid < 0) return cloneError;
  if (request.error != 0) {
    int ignoredStatus = 0;
    while (::waitpid(pid, &ignoredStatus, 0) < 0 && errno == EINTR) {
    }
    errno = callerErrno;
    return request.error;
  }
  *child = pid;
  return 0;
}

}  // namespace process::detail
