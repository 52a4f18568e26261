#include "ProgramRunner.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>

extern char** environ;

namespace CppTools::AutoCli::detail {
namespace {

std::vector<std::string> BuildEnvironment(
    const std::vector<std::pair<std::string, std::string>>& extraEnvironment,
    const std::vector<std::string>& removedVariables) {
  std::set<std::string> replaced(removedVariables.begin(), removedVariables.end());
  for (const auto& [name, value] : extraEnvironment) {
    replaced.insert(name);
  }
  std::vector<std::string> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    std::string variable(*entry);
    if (replaced.count(variable.substr(0, variable.find('='))) == 0) {
      environment.push_back(std::move(variable));
    }
  }
  for (const auto& [name, value] : extraEnvironment) {
    environment.push_back(name);
    environment.back().append("=").append(value);
  }
  return environment;
}

std::vector<char*> PointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

/// Spawn attributes and file actions that give the program a clean start,
/// released when they go out of scope.
class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&fileActions_);
    // The caller may ignore SIGPIPE or block signals in its thread; the
    // program should start as if from a fresh shell.
    sigset_t allSignals;
    sigfillset(&allSignals);
    posix_spawnattr_setsigdefault(&attributes_, &allSignals);
    sigset_t noSignals;
    sigemptyset(&noSignals);
    posix_spawnattr_setsigmask(&attributes_, &noSignals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    // Sockets and files the caller opened without close-on-exec (such as a
    // client connection) must not outlive the caller inside the program.
    posix_spawn_file_actions_addclosefrom_np(&fileActions_, STDERR_FILENO + 1);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&fileActions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawnattr_t* Attributes() const { return &attributes_; }
  const posix_spawn_file_actions_t* FileActions() const { return &fileActions_; }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t fileActions_;
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
  std::vector<std::string> arguments = argv;
  std::vector<std::string> environment = BuildEnvironment(extraEnvironment, removedVariables);
  std::vector<char*> argumentPointers = PointersTo(arguments);
  std::vector<char*> environmentPointers = PointersTo(environment);

  // What the caller printed so far must come before what the program prints.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);

  SpawnSettings settings;
  pid_t child = -1;
  int error =
      posix_spawnp(&child, argumentPointers[0], settings.FileActions(), settings.Attributes(),
                   argumentPointers.data(), environmentPointers.data());
  if (error != 0) {
    result.startError = std::strerror(error);
    return result;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      result.startError = std::string("cannot wait for it: ") + std::strerror(errno);
      return result;
    }
  }
  if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  } else {
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}

}  // namespace CppTools::AutoCli::detail
