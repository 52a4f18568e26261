/// What running a command reported back: its errors.
#pragma once

#include <memory>

#include "CppTools/CallSpec/Output.h"

namespace CppTools::AutoCli {

class CommandOutput : public CallSpec::Output {
 public:
  static std::shared_ptr<CommandOutput> New();

 private:
  CommandOutput() = default;
};

}  // namespace CppTools::AutoCli
