/// The input half of a call: the named parameters a command is called with.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CppTools::CallSpec {

/// Named string parameters in the order they were added; a name may repeat.
class Input {
 public:
  virtual ~Input() = default;

  void AddParameter(const std::string& name, const std::string& value);
  const std::vector<std::pair<std::string, std::string>>& GetParameters() const;

 private:
  std::vector<std::pair<std::string, std::string>> parameters_;
};

}  // namespace CppTools::CallSpec
