// One command definition file, read by ReadDefinitionFile as the
// dispatcher reads each file of its directories.
#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "CppTools/AutoCli/Dispatcher.h"
#include "DefinitionFile.h"
#include "FuzzSupport.h"

namespace {

using CppTools::AutoCli::CommandDefinition;
using CppTools::AutoCli::ParameterDefinition;

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

void CheckParameter(const ParameterDefinition& parameter) {
  const std::string& name = parameter.name;
  fuzzing::Check(
      !name.empty() && name[0] != '-' && name.find('=') == std::string::npos && name != "help",
      "parameter names are usable and not reserved");
  const std::string& shortName = parameter.shortName;
  if (!shortName.empty()) {
    fuzzing::Check(shortName.size() == 1 && shortName != "-" && shortName != "=" &&
                       !IsDigit(shortName[0]) && shortName != "h",
                   "short names are one usable character and not reserved");
  }
}

// What a file that loaded must hold: the rules the dispatcher relies on.
void CheckCommand(const CommandDefinition& command, const std::string& file) {
  fuzzing::Check(command.sourceFile == file, "a command names its file");
  fuzzing::Check(!command.path.empty(), "a command has a path");
  for (const std::string& word : command.path) {
    fuzzing::Check(!word.empty() && word[0] != '-', "path words are neither empty nor options");
  }
  fuzzing::Check(!command.exec.empty(), "a command has a program");
  std::set<std::string> names;
  std::set<std::string> shortNames;
  for (const ParameterDefinition& parameter : command.parameters) {
    CheckParameter(parameter);
    fuzzing::Check(names.insert(parameter.name).second, "parameter names are distinct");
    fuzzing::Check(parameter.shortName.empty() || shortNames.insert(parameter.shortName).second,
                   "short names are distinct");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::MemoryFile file("definitions.json");
  file.Replace(data, size);
  std::vector<CommandDefinition> commands;
  try {
    commands = CppTools::AutoCli::detail::ReadDefinitionFile(file.Path());
  } catch (const std::runtime_error&) {
    // Refused: the dispatcher lists it among its load errors and skips it.
    return 0;
  }
  for (const CommandDefinition& command : commands) CheckCommand(command, file.Path());
  return 0;
}
