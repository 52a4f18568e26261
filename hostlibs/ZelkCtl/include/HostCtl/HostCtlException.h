/// The exception of the host control library.
#pragma once

#include <exception>
#include <string>

namespace HostCtl::Lib {

/// Thrown by the host control library when a node cannot be read or written;
/// the message says which and why.
class HostCtlException : public std::exception {
 public:
  explicit HostCtlException(std::string message);
  const char* what() const noexcept override;

 private:
  std::string message_;
};

}  // namespace HostCtl::Lib
