/// Every way orvane, the executor and the CLI dispatcher create a process,
/// behind one interface that tests can replace.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "hostfile/HostFile.h"
#include "process/ExitStatus.h"

namespace process {

/// What one standard stream of a new program is.
struct Stream {
  enum class Kind {
    Inherited,   ///< the caller's descriptor of the same number, shared
    Null,        ///< /dev/null (input read-write, output appended)
    Descriptor,  ///< the caller's @c descriptor, copied onto the stream
  };
  Kind kind = Kind::Inherited;
  int descriptor = -1;

  static Stream Inherited() { return {}; }
  static Stream Null() { return {Kind::Null, -1}; }
  static Stream Descriptor(int descriptor) { return {Kind::Descriptor, descriptor}; }
};

/// Standard input, output and error of a new program.
struct StandardStreams {
  Stream input;
  Stream output;
  Stream error;

  static StandardStreams AllNull() { return {Stream::Null(), Stream::Null(), Stream::Null()}; }
};

/// A program to run to its end. The new process keeps only its three
/// standard streams; every other descriptor of the caller is closed in it.
struct Program {
  /// The argument vector, null-terminated; its first entry is the program.
  char* const* arguments = nullptr;
  /// The environment, null-terminated; null for this process's own.
  char* const* environment = nullptr;
  StandardStreams streams;
  /// Looks the program up in PATH when it has no slash.
  bool searchPath = false;
  /// Starts the program with every signal at its default action and none
  /// blocked, whatever the calling thread ignores or blocks.
  bool defaultSignals = false;
  /// When set, the program is started by fork and exec, and a program that
  /// cannot be executed is reported by the child: it calls this with the
  /// program and errno, then exits with 1. For a caller whose message must
  /// come from the child, with the child's streams. Unset, the program is
  /// spawned in one step and such a failure is the RunResult's startError.
  void (*childExecFailure)(const char* program, int error) = nullptr;
};

/// The outcome of running something to its end.
struct RunResult {
  /// errno of a start that failed (the program could not be executed, the
  /// fork failed); 0 when it started, and then @c status says how it ended.
  /// A child that reported its own exec failure has started and exited 1.
  int startError = 0;
  ExitStatus status = ExitStatus::NotCollected(0);

  bool Started() const { return startError == 0; }
};

/// The step at which starting a program failed.
enum class StartStep {
  None,          ///< it started
  PrepareSpawn,  ///< the spawn's list of file actions could not be made
  ShareStream,   ///< a standard stream could not be given to the program
  Spawn,         ///< the spawn itself failed (missing program, no memory...)
};

/// A program started and not waited for, or why it did not start.
struct Started {
  pid_t pid = -1;
  StartStep failedStep = StartStep::None;
  /// errno of the failed step; 0 when it started.
  int error = 0;

  bool Ok() const { return failedStep == StartStep::None; }
};

/// A program started in a working directory with three chosen descriptors,
/// as the host kernel's one-step spawn makes daemon commands.
struct DirectoryStart {
  const char* program = "";
  char* const* arguments = nullptr;
  char* const* environment = nullptr;
  /// A descriptor of the directory the program starts in.
  int workingDirectory = -1;
  /// The descriptors that become its standard input, output and error.
  int standard[3] = {-1, -1, -1};
};

/// Where a shell session's child failed before the shell ran.
enum class SessionStep {
  NewSession,  ///< setsid failed
  ExecShell,   ///< the shell could not be executed
};

/// An interactive shell that leads a session of its own on a terminal.
struct ShellSession {
  const char* shell = "/bin/sh";
  /// Becomes the shell's standard input and its controlling terminal.
  int input = 0;
  /// Becomes the shell's standard output (standard error stays).
  int output = 1;
  /// Called in the child when a step fails, with errno, just before the
  /// child exits with 1; for the caller's own message. May be null.
  void (*childFailure)(SessionStep step, int error) = nullptr;
};

/// What a shell command wrote to its standard output.
struct ShellOutput {
  /// False when the command could not be started at all.
  bool started = false;
  /// Its output, read to its end within the caller's bound.
  hostfile::FileContent output;
};

/// Creates processes and waits for them. The process-wide instance is the
/// system's own; a test may replace it (ScopedSpawner) with a fake that
/// records what would run and answers with chosen outcomes. Every function
/// may be called from any thread.
class Spawner {
 public:
  virtual ~Spawner() = default;

  /// The spawner in use: the system's, unless a test replaced it.
  static Spawner& Instance();

  /// Runs @p program and waits for it.
  virtual RunResult Run(const Program& program) = 0;

  /// Starts @p program (its first argument) with @p arguments and
  /// @p environment, sharing this process's standard input, output and
  /// error even where they are close-on-exec; other descriptors are
  /// inherited as they are. Through the host's user-space spawn library.
  virtual Started StartSharingStandardStreams(const char* program, char* const arguments[],
                                              char* const environment[]) = 0;

  /// Starts @p start with the caller's user and group, through the host
  /// kernel's spawn call. Only its three descriptors are inherited.
  virtual Started StartInDirectory(const DirectoryStart& start) = 0;

  /// Waits for a started child to end (see WaitForExit).
  virtual ExitStatus Wait(pid_t child) = 0;

  /// Reaps a started child if it has ended; empty while it runs (see
  /// PollExit).
  virtual std::optional<ExitStatus> Poll(pid_t child) = 0;

  /// Runs @p command through /bin/sh as system() does, and waits. Not
  /// collected when the shell could not be started or waited for.
  virtual ExitStatus RunShellCommand(const std::string& command) = 0;

  /// Runs @p command through /bin/sh and reads its standard output to its
  /// end, at most @p maxBytes; then waits for it.
  virtual ShellOutput ReadShellOutput(const std::string& command, std::size_t maxBytes) = 0;

  /// Forks a child that starts a new session, keeps only its standard
  /// streams, takes @p session's input as its controlling terminal (even
  /// from another session) and executes the shell; waits for it.
  virtual RunResult RunShellSession(const ShellSession& session) = 0;

  /// Forks a child that runs @p body and exits 0 when it returns (1 when it
  /// throws); waits for
  /// the child. For a child that carries on as a process of its own (which
  /// it detaches from this one before the wait returns).
  virtual RunResult RunInChild(const std::function<void()>& body) = 0;
};

/// Promises that this process changes no signal's action from now on, as
/// the executor process can once it has started. The system spawner then
/// reads every action once, here, and the child of each program started
/// after it resets only the signals found ignored or handled instead of
/// every signal: one system call for each of those rather than one for
/// each of the 64. A signal ignored or handled only after the promise
/// would keep that action in the programs, so the promise must hold for
/// the rest of the process's life. Call it while no other thread starts
/// programs.
void PromiseFixedSignalActions();

/// Puts @p spawner in the place of the process-wide one for the life of the
/// scope, and the previous one back afterwards. For tests; make it while no
/// other thread starts processes.
class ScopedSpawner {
 public:
  explicit ScopedSpawner(Spawner& spawner);
  ~ScopedSpawner();
  ScopedSpawner(const ScopedSpawner&) = delete;
  ScopedSpawner& operator=(const ScopedSpawner&) = delete;

 private:
  Spawner* previous_;
};

}  // namespace process
