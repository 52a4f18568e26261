/// The output half of a call: the errors a command reported.
#pragma once

#include <string>
#include <vector>

namespace CppTools::CallSpec {

/// Collects error texts; a call failed when there is at least one.
class Output {
 public:
  virtual ~Output() = default;

  void AddError(const std::string& error);
  bool HasError() const;
  const std::vector<std::string>& GetErrors() const;

 private:
  std::vector<std::string> errors_;
};

}  // namespace CppTools::CallSpec
