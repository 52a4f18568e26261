#include "HostCtl/HostCtlException.h"

#include <utility>

namespace HostCtl::Lib {

HostCtlException::HostCtlException(std::string message) : message_(std::move(message)) {}

const char* HostCtlException::what() const noexcept { return message_.c_str(); }

}  // namespace HostCtl::Lib
