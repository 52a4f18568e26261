#include "CppTools/CallSpec/Input.h"

namespace CppTools::CallSpec {

void Input::AddParameter(const std::string& name, const std::string& value) {
  parameters_.emplace_back(name, value);
}

const std::vector<std::pair<std::string, std::string>>& Input::GetParameters() const {
  return parameters_;
}

}  // namespace CppTools::CallSpec
