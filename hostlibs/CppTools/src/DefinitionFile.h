// Reading one command definition file into command definitions.
#pragma once

#include <string>
#include <vector>

#include "CppTools/AutoCli/Dispatcher.h"

namespace CppTools::AutoCli::detail {

/// Reads, parses and checks the definition file @p file and returns its
/// commands in file order. Throws std::runtime_error, with a message that
/// begins with the file's path, when the file cannot be read as a regular
/// file, is not valid JSON (comments allowed) or breaks the schema.
std::vector<CommandDefinition> ReadDefinitionFile(const std::string& file);

}  // namespace CppTools::AutoCli::detail
