/// What a dispatcher is asked to run: the dispatcher's name, the command
/// path and the parameters.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CppTools/CallSpec/Input.h"

namespace CppTools::AutoCli {

class CommandInput : public CallSpec::Input {
 public:
  static std::shared_ptr<CommandInput> New();

  void SetDispatcher(const std::string& name);
  const std::string& GetDispatcher() const;
  void SetCommandPath(const std::vector<std::string>& path);
  const std::vector<std::string>& GetCommandPath() const;

 private:
  CommandInput() = default;

  std::string dispatcher_;
  std::vector<std::string> commandPath_;
};

}  // namespace CppTools::AutoCli
