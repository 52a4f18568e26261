// Starting a command's program and waiting for it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CppTools::AutoCli::detail {

/// How a program run ended.
struct ProgramResult {
  std::string startError;  ///< why the program could not be started; empty when it ran
  int exitStatus = 0;      ///< its exit status when it exited
  int signal = 0;          ///< the signal that ended it; 0 when it exited
};

/// Runs @p argv (argv[0] found through PATH when it has no "/") with the
/// caller's environment less the variables named in @p removedVariables,
/// plus @p extraEnvironment (replacing variables of the same name); with
/// the caller's descriptors 0, 1 and 2 and no others, every signal at its
/// default action and none blocked; and waits for it to end. Uses
/// posix_spawn, so the caller's image is never duplicated.
ProgramResult RunProgram(const std::vector<std::string>& argv,
                         const std::vector<std::pair<std::string, std::string>>& extraEnvironment,
                         const std::vector<std::string>& removedVariables);

}  // namespace CppTools::AutoCli::detail
