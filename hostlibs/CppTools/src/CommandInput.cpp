#include "CppTools/AutoCli/CommandInput.h"

namespace CppTools::AutoCli {

std::shared_ptr<CommandInput> CommandInput::New() {
  // The constructor is private so that every input is shared-owned.
  return std::shared_ptr<CommandInput>(new CommandInput());
}

void CommandInput::SetDispatcher(const std::string& name) { dispatcher_ = name; }

const std::string& CommandInput::GetDispatcher() const { return dispatcher_; }

void CommandInput::SetCommandPath(const std::vector<std::string>& path) { commandPath_ = path; }

const std::vector<std::string>& CommandInput::GetCommandPath() const { return commandPath_; }

}  // namespace CppTools::AutoCli
