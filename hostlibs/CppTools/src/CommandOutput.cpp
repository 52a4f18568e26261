#include "CppTools/AutoCli/CommandOutput.h"

namespace CppTools::AutoCli {

std::shared_ptr<CommandOutput> CommandOutput::New() {
  // The constructor is private so that every output is shared-owned.
  return std::shared_ptr<CommandOutput>(new CommandOutput());
}

}  // namespace CppTools::AutoCli
