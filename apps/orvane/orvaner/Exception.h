/// The exceptions that carry failures across module boundaries. Each holds
/// a message that is complete when thrown; catchers log what() and decide
/// whether the run goes on.
#pragma once

#include <exception>
#include <string>

namespace orvane {

/// A failure with a plain message; thrown as is by the infrastructure.
class Exception : public std::exception {
 public:
  explicit Exception(std::string message);
  const char* what() const noexcept override;

 private:
  std::string message_;
};

/// A plugin kind was asked for a method it does not have.
class NotImplementedException : public Exception {
 public:
  explicit NotImplementedException(const std::string& method);
};

/// A plugin method ran and failed. Constructed from (method, plugin, reason);
/// the message names the plugin first: "foo->start() failed: reason".
class MethodFailedException : public Exception {
 public:
  MethodFailedException(const std::string& method, const std::string& plugin,
                        const std::string& reason);
};

/// A plugin file could not be loaded; thrown only while loading.
class InvalidPluginException : public Exception {
 public:
  InvalidPluginException(const std::string& plugin, const std::string& reason);
};

}  // namespace orvane
