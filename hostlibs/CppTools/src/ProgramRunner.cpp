#include "ProgramRunner.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>

#include "process/Spawner.h"

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

  // The program starts as if from a fresh shell (the caller may ignore
  // SIGPIPE or block signals in its thread), and sockets and files the
  // caller opened without close-on-exec (such as a client connection) do
  // not outlive the caller inside it.
  process::Program program;
  program.arguments = argumentPointers.data();
  program.environment = environmentPointers.data();
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
