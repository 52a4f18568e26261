#include "orvaner/DaemonPlugin.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <sstream>
#include <utility>
#include <vector>

#include "ZelkCtl/KernelProgressScreenImpl.h"
#include "ZelkKernel/ProcessExitWatch.h"
#include "ZelkKernel/Spawn.h"
#include "log/Log.h"
#include "log/Panic.h"
#include "orvaner/Exception.h"
#include "orvaner/Executor.h"
#include "orvaner/Logging.h"
#include "orvaner/PassObserver.h"
#include "orvaner/RunOptions.h"

namespace orvane {
namespace {

constexpr const char* kStartingService = "Starting service ";
constexpr const char* kOperationsMissing = " Daemon operations are not initialized";

// Where a broken invariant of the runner is reported from.
constexpr const char* kVerifyFormat = "VERIFY %s:%d\n";
constexpr const char* kVerifySource = "apps/orvane/orvaner/DaemonPlugin";
constexpr int kVerifyRootDirectoryLine = 86;

constexpr std::uint32_t kStandardStreamCount = 3;
constexpr std::uint32_t kMillisecondsPerSecond = 1000;
constexpr std::uint32_t kPollMilliseconds = 10;
constexpr std::chrono::microseconds kPollPeriod{10000};
// A command that is not waited for gets ten seconds to fail.
constexpr std::uint32_t kNoWaitPollCount = 1000;

/// The words of a command line as separate NUL-terminated buffers, and the
/// null-terminated vector of pointers to them that a new process takes.
class ArgumentVector {
 public:
  explicit ArgumentVector(const std::string& commandLine) {
    std::istringstream stream(commandLine);
    std::string word;
    while (stream >> word) words_.push_back(word);
    for (std::string& stored : words_) pointers_.push_back(stored.data());
    pointers_.push_back(nullptr);
  }
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;

  /// The program to run: the first word; empty for a line of blanks, which
  /// no program has as its path.
  const char* Program() const { return words_.empty() ? "" : words_.front().c_str(); }
  char* const* Pointers() const { return pointers_.data(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

/// The working directory and the three standard descriptors of one
/// command, closed again whatever happens. Opened close-on-exec, so that
/// processes other threads start meanwhile do not inherit them.
class CommandDescriptors {
 public:
  explicit CommandDescriptors(const DaemonCommandStreams& streams) {
    root_ = open(paths::kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root_ <= 0) {
      Panic(kVerifyFormat, kVerifySource, kVerifyRootDirectoryLine);
    }
    input_ = open(streams.input, O_RDWR | O_CLOEXEC);
    if (input_ < 0) {
      Log_Level(LOG_LEVEL_WARNING, "opening /dev/null failed\n");
      input_ = root_;
    }
    errors_ = open(streams.errors, O_WRONLY | O_CLOEXEC);
    if (errors_ < 0) errors_ = input_;
    standard_[0] = input_;
    standard_[1] = input_;
    standard_[2] = errors_;
  }
  ~CommandDescriptors() {
    close(root_);
    if (input_ != root_) close(input_);
    if (errors_ != input_) close(errors_);
  }
  CommandDescriptors(const CommandDescriptors&) = delete;
  CommandDescriptors& operator=(const CommandDescriptors&) = delete;

  int Root() const { return root_; }
  /// Standard input, output and error, in that order.
  const int* Standard() const { return standard_; }

 private:
  int root_;
  int input_;
  int errors_;
  int standard_[kStandardStreamCount];
};

char* const* CommandEnvironment(const RunOptions& options) {
  static char* const kEmpty[] = {nullptr};
  return options.environment != nullptr ? options.environment : kEmpty;
}

DaemonCommandPause& ReplacementPause() {
  static DaemonCommandPause pause;
  return pause;
}

// The exit watch's own wait, unless a test put another pause in its place.
void PauseBetweenPolls(const ZelkKernel::ProcessExitWatch& exitWatch) {
  if (const DaemonCommandPause& pause = ReplacementPause()) {
    pause(exitWatch, kPollPeriod);
    return;
  }
  exitWatch.WaitAtMost(kPollPeriod);
}

// The message of a command that the poll found ended.
std::string EndedCommandFailure(int status, const std::string& commandLine) {
  const std::string prefix = "Execution of command: " + commandLine;
  if (WIFSIGNALED(status)) {
    return prefix + " failed with signal: " + std::to_string(WTERMSIG(status));
  }
  if (WIFEXITED(status)) {
    const int code = WEXITSTATUS(status);
    return code == 0 ? std::string() : prefix + " failed with status: " + std::to_string(code);
  }
  return prefix + " failed <unknown_error>";
}

}  // namespace

DaemonPlugin::DaemonPlugin(std::string name, std::int32_t number)
    : Plugin(std::move(name), kLegacyDaemonSchedulingClass), number_(number) {}

void DaemonPlugin::Execute(Executor& executor) {
  ZelkCtl::System::KernelProgressScreenImpl progressScreen;
  progressScreen.ProgressText(kStartingService + Name());
  Plugin::Execute(executor);
  progressScreen.AdvanceProgress();
}

void DaemonPlugin::ExecuteReverse(Executor& executor) {
  PassObserver* observer = executor.Observer();
  if (observer != nullptr) observer->ActivationStarted(*this);
  LogAlert("Deactivating Daemon %s.", Name().c_str());
  Log_Level(LOG_LEVEL_INFO, "executing stop for daemon %s.\n", Name().c_str());
  try {
    Stop();
    LogAlert("Daemon %s deactivated.", Name().c_str());
    if (observer != nullptr)
      observer->ActivationFinished(*this, PassObserver::Outcome::Activated, "");
  } catch (const std::exception& error) {
    // A daemon that fails to stop must not hold up the others.
    LogAlert("Daemon %s deactivation failed: %s", Name().c_str(), error.what());
    if (observer != nullptr) {
      observer->ActivationFinished(*this, PassObserver::Outcome::Failed, error.what());
    }
  }
}

void DaemonPlugin::Start() {
  try {
    RunDaemonCommand(Name(), Operation(kStartOperation));
    daemonState_ = kStarted;
    Log_Level(LOG_LEVEL_INFO, "%s started.\n", Name().c_str());
  } catch (const std::exception& error) {
    daemonState_ = kStartFailed;
    Log_Level(LOG_LEVEL_WARNING, "Orvane failed to start: %s reason: %s\n", Name().c_str(),
              error.what());
    throw MethodFailedException("start", Name(), error.what());
  }
}

void DaemonPlugin::Stop() {
  try {
    RunDaemonCommand(Name(), Operation(kStopOperation));
    daemonState_ = kStopped;
    Log_Level(LOG_LEVEL_INFO, "%s stopped.\n", Name().c_str());
  } catch (const std::exception& error) {
    Log_Level(LOG_LEVEL_WARNING, "Orvane failed to stop: %s reason: %s\n", Name().c_str(),
              error.what());
    throw;
  }
}

void DaemonPlugin::ApplyHostProfile() {
  throw NotImplementedException("DaemonPlugin::ApplyHostProfile");
}

void DaemonPlugin::Restart() { throw NotImplementedException("DaemonPlugin::Restart"); }

void DaemonPlugin::SSLReset() { throw NotImplementedException("DaemonPlugin::SSLReset"); }

const std::string& DaemonPlugin::Operation(std::int32_t code) const {
  const auto found = operations_.find(code);
  if (found == operations_.end()) {
    throw Exception(Name() + kOperationsMissing);
  }
  return found->second;
}

void DaemonPlugin::SetOperation(std::int32_t code, std::string commandLine) {
  operations_[code] = std::move(commandLine);
}

std::uint32_t DaemonCommandPollCount(bool wait, std::uint32_t timeoutSeconds) {
  if (!wait) return kNoWaitPollCount;
  return (timeoutSeconds * kMillisecondsPerSecond + (kPollMilliseconds - 1)) / kPollMilliseconds;
}

std::string AwaitDaemonCommand(pid_t child, std::uint32_t pollCount, bool wait,
                               const std::string& commandLine) {
  const ZelkKernel::ProcessExitWatch exitWatch(child);
  std::uint32_t pollsLeft = pollCount;
  std::string failure;
  bool ended = false;
  while (!ended) {
    int status = -1;
    const pid_t reported = waitpid(child, &status, WNOHANG);
    if (reported == 0) {
      // Still running: one period, over early if the command ends in it.
      PauseBetweenPolls(exitWatch);
      // A count of 0 wraps here and the wait has in effect no limit.
      if (--pollsLeft == 0) break;
    } else if (reported < 0 && errno == EINTR) {
      continue;  // asked again at once; the poll is not used up
    } else if (reported < 0) {
      failure = "Execution of command: " + commandLine + " failed <unknown_error>";
      ended = true;
    } else {
      failure = EndedCommandFailure(status, commandLine);
      ended = true;
    }
  }
  // Out of polls: a command waited for has timed out; one not waited for
  // is taken as started and left running. Neither is killed. A count that
  // was 0 from the start is still 0 when a command ends before the first
  // period, so such a command also counts as timed out; a failure found
  // then is reported as it is.
  if (pollsLeft == 0 && failure.empty() && wait) {
    failure = "Execution of command: '" + commandLine + "' timed out.";
  }
  return failure;
}

void ReplaceDaemonCommandPause(DaemonCommandPause pause) { ReplacementPause() = std::move(pause); }

void RunDaemonCommand(const std::string& /*pluginName*/, const std::string& commandLine,
                      const DaemonCommandStreams& streams) {
  const std::uint32_t userId = getuid();
  const std::uint32_t groupId = getgid();
  const ArgumentVector arguments(commandLine);
  const RunOptions& options = RunOptions::Instance();

  const CommandDescriptors descriptors(streams);
  std::int32_t child = 0;
  ZelkKernel::SpawnRequest request{kStandardStreamCount, userId, groupId, 0, &child};
  const int spawned = ZelkKernel::ZelkKernel_Spawn(arguments.Program(), arguments.Pointers(),
                                                   CommandEnvironment(options), descriptors.Root(),
                                                   descriptors.Standard(), &request);
  std::string failure;
  if (spawned != 0) {
    errno = -spawned;
    failure = "failed to ForkExec '" + commandLine + "' : " + std::strerror(errno);
  } else {
    failure = AwaitDaemonCommand(
        child, DaemonCommandPollCount(options.daemonWait, options.daemonWaitTimeout),
        options.daemonWait, commandLine);
  }
  if (!failure.empty()) {
    throw Exception(failure);
  }
}

}  // namespace orvane
