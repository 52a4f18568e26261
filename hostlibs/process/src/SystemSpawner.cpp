// The spawner of the real system: a vfork-like clone (or posix_spawn) for
// programs run to their end, the host spawn libraries for the helper and
// daemon commands,
// system() and popen() for shell commands, fork where the child must do
// more than execute a program.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ChildStreams.h"
#include "VforkSpawn.h"
#include "ZelkKernel/Spawn.h"
#include "ZelkKernel/SpawnSettings.h"
#include "ZelkuserCompat/Spawn.h"
#include "process/Spawner.h"
#include "process/Wait.h"

extern char** environ;

namespace process {
namespace {

using detail::kCreatedOutputMode;
using detail::kNullDevice;
using detail::PlaceStream;
constexpr int kChildFailureStatus = 1;
constexpr std::array<int, 3> kStandardDescriptors = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
// Take the terminal even if another session has it.
constexpr int kStealTerminal = 1;

using ZelkKernel::SpawnSettings;

// Output is opened for appending, as a log file would be.
int AddStream(posix_spawn_file_actions_t* actions, const Stream& stream, int target) {
  switch (stream.kind) {
    case Stream::Kind::Inherited: return 0;
    case Stream::Kind::Null:
      return target == STDIN_FILENO
                 ? posix_spawn_file_actions_addopen(actions, target, kNullDevice, O_RDWR, 0)
                 : posix_spawn_file_actions_addopen(actions, target, kNullDevice,
                                                    O_WRONLY | O_CREAT | O_APPEND,
                                                    kCreatedOutputMode);
    case Stream::Kind::Descriptor:
      return posix_spawn_file_actions_adddup2(actions, stream.descriptor, target);
  }
  return EINVAL;
}

int DefaultSignals(posix_spawnattr_t* attributes) {
  sigset_t allSignals;
  sigfillset(&allSignals);
  sigset_t noSignals;
  sigemptyset(&noSignals);
  if (const int error = posix_spawnattr_setsigdefault(attributes, &allSignals); error != 0) {
    return error;
  }
  if (const int error = posix_spawnattr_setsigmask(attributes, &noSignals); error != 0) {
    return error;
  }
  return posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

// Every step's error, or 0 when the settings describe the program's start.
int Prepare(SpawnSettings& settings, const Program& program) {
  if (const int error = settings.InitError(); error != 0) return error;
  posix_spawn_file_actions_t* actions = settings.Actions();
  const Stream* streams[] = {&program.streams.input, &program.streams.output,
                             &program.streams.error};
  for (int target : kStandardDescriptors) {
    if (const int error = AddStream(actions, *streams[target], target); error != 0) return error;
  }
  if (const int error = posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
      error != 0) {
    return error;
  }
  return program.defaultSignals ? DefaultSignals(settings.Attributes()) : 0;
}

void ResetSignalsInChild() {
  for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
  sigset_t noSignals;
  sigemptyset(&noSignals);
  ::sigprocmask(SIG_SETMASK, &noSignals, nullptr);
}

// Runs in the forked child of Run; never returns. The standard streams are
// placed after the others are closed, as a program run to its end from a
// child of this process always had them; one that cannot be placed stays
// as it was.
[[noreturn]] void ExecuteInChild(const Program& program, char* const* environment) {
  CloseInheritedDescriptors();
  PlaceStream(program.streams.input, STDIN_FILENO);
  PlaceStream(program.streams.output, STDOUT_FILENO);
  PlaceStream(program.streams.error, STDERR_FILENO);
  if (program.defaultSignals) ResetSignalsInChild();
  if (program.searchPath) {
    ::execvpe(program.arguments[0], program.arguments, environment);
  } else {
    ::execve(program.arguments[0], program.arguments, environment);
  }
  program.childExecFailure(program.arguments[0], errno);
  ::_exit(kChildFailureStatus);
}

// Runs in the forked child of a shell session; never returns.
[[noreturn]] void BecomeShellSession(const ShellSession& session) {
  if (session.input != STDIN_FILENO) ::dup2(session.input, STDIN_FILENO);
  if (session.output >= 0 && session.output != STDOUT_FILENO) {
    ::dup2(session.output, STDOUT_FILENO);
  }
  if (::setsid() < 0) {
    if (session.childFailure != nullptr) session.childFailure(SessionStep::NewSession, errno);
    ::_exit(kChildFailureStatus);
  }
  CloseInheritedDescriptors();
  ::ioctl(STDIN_FILENO, TIOCSCTTY, kStealTerminal);
  ::execl(session.shell, session.shell, static_cast<char*>(nullptr));
  if (session.childFailure != nullptr) session.childFailure(SessionStep::ExecShell, errno);
  ::_exit(kChildFailureStatus);
}

// Forks: the child runs @p child, which must not return; the parent waits
// for it.
template <typename ChildBody>
RunResult ForkAndWait(const ChildBody& child) {
  RunResult result;
  const pid_t pid = ::fork();
  if (pid < 0) {
    result.startError = errno;
    return result;
  }
  if (pid == 0) child();
  result.status = WaitForExit(pid);
  return result;
}

/// Closes a popen stream on every way out.
class ShellPipe {
 public:
  explicit ShellPipe(const std::string& command) : pipe_(::popen(command.c_str(), "r")) {}
  ~ShellPipe() {
    if (pipe_ != nullptr) ::pclose(pipe_);
  }
  ShellPipe(const ShellPipe&) = delete;
  ShellPipe& operator=(const ShellPipe&) = delete;

  FILE* Stream() const { return pipe_; }

 private:
  FILE* pipe_;
};

class PosixSpawner final : public Spawner {
 public:
  RunResult Run(const Program& program) override {
    char* const* environment = program.environment != nullptr ? program.environment : environ;
    if (program.childExecFailure != nullptr) {
      return ForkAndWait([&] { ExecuteInChild(program, environment); });
    }
    RunResult result;
    if (detail::CanSpawnWithVfork(program)) {
      pid_t child = -1;
      if (const int error = detail::SpawnWithVfork(program, environment, &child); error != 0) {
        result.startError = error;
        return result;
      }
      result.status = WaitForExit(child);
      return result;
    }
    SpawnSettings settings;
    if (const int error = Prepare(settings, program); error != 0) {
      result.startError = error;
      return result;
    }
    pid_t child = -1;
    const int error = program.searchPath
                          ? posix_spawnp(&child, program.arguments[0], settings.Actions(),
                                         settings.Attributes(), program.arguments, environment)
                          : posix_spawn(&child, program.arguments[0], settings.Actions(),
                                        settings.Attributes(), program.arguments, environment);
    if (error != 0) {
      result.startError = error;
      return result;
    }
    result.status = WaitForExit(child);
    return result;
  }

  Started StartSharingStandardStreams(const char* program, char* const arguments[],
                                      char* const environment[]) override {
    Started started;
    ZelkuserCompat_SpawnFileActions fileActions;
    ZelkuserStatus status = ZelkuserCompat_SpawnFileActionsInit(
        &fileActions, static_cast<int>(kStandardDescriptors.size()));
    if (status != ZELKUSER_OK) {
      return {-1, StartStep::PrepareSpawn, status};
    }
    // A dup2 onto the same number clears close-on-exec: the program gets
    // the streams even where this process marked them.
    for (int descriptor : kStandardDescriptors) {
      status = ZelkuserCompat_SpawnFileActionsAddDup2(&fileActions, descriptor, descriptor);
      if (status != ZELKUSER_OK) {
        ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
        return {-1, StartStep::ShareStream, status};
      }
    }
    status = ZelkuserCompat_Spawn(&started.pid, program, &fileActions, arguments,
                                  environment != nullptr ? environment : environ);
    ZelkuserCompat_SpawnFileActionsDestroy(&fileActions);
    if (status != ZELKUSER_OK) {
      return {-1, StartStep::Spawn, status};
    }
    return started;
  }

  Started StartInDirectory(const DirectoryStart& start) override {
    std::int32_t child = 0;
    ZelkKernel::SpawnRequest request{static_cast<std::uint32_t>(kStandardDescriptors.size()),
                                     static_cast<std::uint32_t>(::getuid()),
                                     static_cast<std::uint32_t>(::getgid()), 0, &child};
    const int spawned =
        ZelkKernel::ZelkKernel_Spawn(start.program, start.arguments, start.environment,
                                     start.workingDirectory, start.standard, &request);
    if (spawned != 0) return {-1, StartStep::Spawn, -spawned};
    return {static_cast<pid_t>(child), StartStep::None, 0};
  }

  ExitStatus Wait(pid_t child) override { return WaitForExit(child); }

  std::optional<ExitStatus> Poll(pid_t child) override { return PollExit(child); }

  // system() itself: it ignores SIGINT and SIGQUIT while the shell runs and
  // is safe to call from several threads at once.
  ExitStatus RunShellCommand(const std::string& command) override {
    const int waitStatus = std::system(command.c_str());
    if (waitStatus == -1) return ExitStatus::NotCollected(errno);
    return ExitStatus::FromWaitStatus(waitStatus);
  }

  ShellOutput ReadShellOutput(const std::string& command, std::size_t maxBytes) override {
    ShellOutput result;
    const ShellPipe pipe(command);
    if (pipe.Stream() == nullptr) return result;
    result.started = true;
    // A pipe on descriptor 0 means this process had no standard input;
    // nothing is read from it.
    if (::fileno(pipe.Stream()) < 1) return result;
    result.output = hostfile::ReadToEnd(::fileno(pipe.Stream()), maxBytes);
    return result;
  }

  RunResult RunShellSession(const ShellSession& session) override {
    return ForkAndWait([&] { BecomeShellSession(session); });
  }

  RunResult RunInChild(const std::function<void()>& body) override {
    return ForkAndWait([&] {
      // An exception must not climb out of the child into the caller's
      // code: the child would go on as a second copy of this process.
      try {
        body();
      } catch (...) {
        ::_exit(kChildFailureStatus);
      }
      ::_exit(0);
    });
  }
};

}  // namespace

Spawner& SystemSpawner() {
  static PosixSpawner spawner;
  return spawner;
}

}  // namespace process
