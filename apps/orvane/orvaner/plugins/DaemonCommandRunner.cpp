#include "orvaner/plugins/DaemonCommandRunner.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "ZelkKernel/ProcessExitWatch.h"
#include "log/Log.h"
#include "log/Panic.h"
#include "orvaner/Exception.h"
#include "orvaner/RunOptions.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

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
std::string EndedCommandFailure(const process::ExitStatus& status, const std::string& commandLine) {
  const std::string prefix = "Execution of command: " + commandLine;
  switch (status.How()) {
    case process::ExitStatus::Kind::Killed:
      return prefix + " failed with signal: " + std::to_string(status.Signal());
    case process::ExitStatus::Kind::Exited:
      return status.Code() == 0 ? std::string()
                                : prefix + " failed with status: " + std::to_string(status.Code());
    case process::ExitStatus::Kind::Other:
    case process::ExitStatus::Kind::NotCollected: break;
  }
  return prefix + " failed <unknown_error>";
}

}  // namespace

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
    const std::optional<process::ExitStatus> status = process::Spawner::Instance().Poll(child);
    if (!status) {
      // Still running: one period, over early if the command ends in it.
      PauseBetweenPolls(exitWatch);
      // A count of 0 wraps here and the wait has in effect no limit.
      if (--pollsLeft == 0) break;
    } else {
      failure = EndedCommandFailure(*status, commandLine);
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
  const ArgumentVector arguments(commandLine);
  const RunOptions& options = RunOptions::Instance();

  const CommandDescriptors descriptors(streams);
  process::DirectoryStart start;
  start.program = arguments.Program();
  start.arguments = arguments.Pointers();
  start.environment = CommandEnvironment(options);
  start.workingDirectory = descriptors.Root();
  for (std::uint32_t stream = 0; stream < kStandardStreamCount; ++stream) {
    start.standard[stream] = descriptors.Standard()[stream];
  }
  const process::Started started = process::Spawner::Instance().StartInDirectory(start);
  std::string failure;
  if (!started.Ok()) {
    failure = "failed to ForkExec '" + commandLine + "' : " + std::strerror(started.error);
  } else {
    failure = AwaitDaemonCommand(
        started.pid, DaemonCommandPollCount(options.daemonWait, options.daemonWaitTimeout),
        options.daemonWait, commandLine);
  }
  if (!failure.empty()) {
    throw Exception(failure);
  }
}

}  // namespace orvane
