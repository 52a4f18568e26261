#include "ProgramRunner.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string_view>

#include "process/Spawner.h"

extern char** environ;

namespace CppTools::AutoCli::detail {
namespace {

/// Whether the environment entry @p entry ("NAME=value") sets one of the
/// variables named in @p names.
bool SetsOneOf(const char* entry, const std::vector<std::string_view>& names) {
  const char* equals = std::strchr(entry, '=');
  const std::string_view name(
      entry, equals == nullptr ? std::strlen(entry) : static_cast<std::size_t>(equals - entry));
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// The program's environment: this process's entries, pointed at where
/// they are, less those the command removes or replaces, then the
/// command's own "NAME=value" strings, which the object owns.
class ProgramEnvironment {
 public:
  ProgramEnvironment(const std::vector<std::pair<std::string, std::string>>& extraEnvironment,
                     const std::vector<std::string>& removedVariables) {
    std::vector<std::string_view> replaced(removedVariables.begin(), removedVariables.end());
    for (const auto& [name, value] : extraEnvironment) replaced.emplace_back(name);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (replaced.empty() || !SetsOneOf(*entry, replaced)) pointers_.push_back(*entry);
    }
    added_.reserve(extraEnvironment.size());
    for (const auto& [name, value] : extraEnvironment) {
      added_.push_back(name);
      added_.back().append("=").append(value);
      pointers_.push_back(added_.back().data());
    }
    pointers_.push_back(nullptr);
  }
  ProgramEnvironment(const ProgramEnvironment&) = delete;
  ProgramEnvironment& operator=(const ProgramEnvironment&) = delete;

  char* const* Get() const { return pointers_.data(); }

 private:
  std::vector<std::string> added_;
  std::vector<char*> pointers_;
};

}  // namespace

ProgramResult RunProgram(const std::vector<std::string>& argv,
                         const std::vector<std::pair<std::string, std::string>>& extraEnvironment,
                         const std::vector<std::string>& removedVariables) {
  ProgramResult result;
  if (argv.empty()) {
    result.startError = "there is no program to run";
    return result;
  }
  // The program gets the caller's strings as they are: nothing is copied
  // but the pointers, and the environment's own variables stay in place.
  std::vector<char*> argumentPointers;
  argumentPointers.reserve(argv.size() + 1);
  for (const std::string& argument : argv) {
    argumentPointers.push_back(const_cast<char*>(argument.c_str()));
  }
  argumentPointers.push_back(nullptr);
  const ProgramEnvironment environment(extraEnvironment, removedVariables);

  // What the caller printed so far must come before what the program prints.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);

  // The program starts as if from a fresh shell (the caller may ignore
  // SIGPIPE or block signals in its thread), and sockets and files the
  // caller opened without close-on-exec (such as a client connection) do
  // not outlive the caller inside it.
  process::Program program;
  program.arguments = argumentPointers.data();
  program.environment = environment.Get();
  program.searchPath = true;
  program.defaultSignals = true;
  const process::RunResult run = process::Spawner::Instance().Run(program);
  if (!run.Started()) {
    result.startError = std::strerror(run.startError);
    return result;
  }
  if (!run.status.Collected()) {
    result.startError = std::string("cannot wait for it: ") + std::strerror(run.status.WaitError());
    return result;
  }
  // Anything but a signal is read as an exit status, as the wait word gives it.
  if (run.status.Killed()) {
    result.signal = run.status.Signal();
  } else {
    result.exitStatus = WEXITSTATUS(run.status.WaitStatus());
  }
  return result;
}

}  // namespace CppTools::AutoCli::detail
