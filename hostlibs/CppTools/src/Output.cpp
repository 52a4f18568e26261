#include "CppTools/CallSpec/Output.h"

namespace CppTools::CallSpec {

void Output::AddError(const std::string& error) { errors_.push_back(error); }

bool Output::HasError() const { return !errors_.empty(); }

const std::vector<std::string>& Output::GetErrors() const { return errors_; }

}  // namespace CppTools::CallSpec
