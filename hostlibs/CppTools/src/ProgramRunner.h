// Starting a command's program and waiting for it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "CppTools/AutoCli/Dispatcher.h"

namespace CppTools::AutoCli::detail {

/// Runs @p argv (argv[0] found through PATH when it has no "/") with the
/// caller's environment less the variables named in @p removedVariables,
/// plus @p extraEnvironment (replacing variables of the same name); with
/// the caller's descriptors 0, 1 and 2 and no others, every signal at its
/// default action and none blocked; and waits for it to end. The process
/// library's spawn never duplicates the caller's image.
ProgramResult RunProgram(const std::vector<std::string>& argv,
                         const std::vector<std::pair<std::string, std::string>>& extraEnvironment,
                         const std::vector<std::string>& removedVariables);

}  // namespace CppTools::AutoCli::detail
