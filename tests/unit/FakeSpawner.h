// A spawner that starts no process: it records, one line per call, what
// would have run, and answers with the outcomes the test chose. It takes
// the place of the process-wide spawner for its own lifetime.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "process/Spawner.h"

namespace unit_testing {

class FakeSpawner : public process::Spawner {
 public:
  /// The process id of every process the fake "starts": above the kernel's
  /// highest, so that no real process can have it.
  static constexpr pid_t kFakePid = 0x3ffffff0;

  FakeSpawner() = default;
  FakeSpawner(const FakeSpawner&) = delete;
  FakeSpawner& operator=(const FakeSpawner&) = delete;

  // ---- the outcomes the test chooses (set them before the code runs)

  /// What Run, RunShellSession and RunInChild answer.
  process::RunResult runResult{0, process::ExitStatus::ExitedWith(0)};
  /// What both Start functions answer; a failed step when not None.
  process::StartStep startFailure = process::StartStep::None;
  int startError = 0;
  /// What Wait answers.
  process::ExitStatus waitStatus = process::ExitStatus::ExitedWith(0);
  /// What successive Polls answer, front first; once used up, every Poll
  /// answers @c pollsAfterwards (empty: the process still runs).
  std::deque<std::optional<process::ExitStatus>> polls;
  std::optional<process::ExitStatus> pollsAfterwards;
  /// What RunShellCommand answers.
  process::ExitStatus shellStatus = process::ExitStatus::ExitedWith(0);
  /// What ReadShellOutput answers.
  process::ShellOutput shellOutput{true, {}};

  /// Every call so far, in order: "run <arguments>", "start <arguments>",
  /// "start in <directory descriptor> <arguments>", "wait <pid>",
  /// "poll <pid>", "shell <command>", "read <command> (at most <n>)",
  /// "session <shell>", "child".
  std::vector<std::string> Calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  process::RunResult Run(const process::Program& program) override {
    Record("run" + Words(program.arguments));
    return runResult;
  }

  process::Started StartSharingStandardStreams(const char* /*program*/, char* const arguments[],
                                               char* const /*environment*/[]) override {
    Record("start" + Words(arguments));
    return Answer();
  }

  process::Started StartInDirectory(const process::DirectoryStart& start) override {
    Record("start in " + std::to_string(start.workingDirectory) + Words(start.arguments));
    return Answer();
  }

  process::ExitStatus Wait(pid_t child) override {
    Record("wait " + std::to_string(child));
    return waitStatus;
  }

  std::optional<process::ExitStatus> Poll(pid_t child) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back("poll " + std::to_string(child));
    if (polls.empty()) return pollsAfterwards;
    const std::optional<process::ExitStatus> answer = polls.front();
    polls.pop_front();
    return answer;
  }

  process::ExitStatus RunShellCommand(const std::string& command) override {
    Record("shell " + command);
    return shellStatus;
  }

  process::ShellOutput ReadShellOutput(const std::string& command, std::size_t maxBytes) override {
    Record("read " + command + " (at most " + std::to_string(maxBytes) + ")");
    return shellOutput;
  }

  process::RunResult RunShellSession(const process::ShellSession& session) override {
    Record(std::string("session ") + session.shell);
    return runResult;
  }

  process::RunResult RunInChild(const std::function<void()>& /*body*/) override {
    Record("child");
    return runResult;
  }

 private:
  static std::string Words(char* const* arguments) {
    std::string words;
    for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
      words += ' ';
      words += *arguments;
    }
    return words;
  }

  void Record(std::string call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
  }

  process::Started Answer() const {
    if (startFailure != process::StartStep::None) return {-1, startFailure, startError};
    return {kFakePid, process::StartStep::None, 0};
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;

 public:
  /// Last, so that the fake is whole before it is put in place.
  process::ScopedSpawner scope{*this};
};

}  // namespace unit_testing
