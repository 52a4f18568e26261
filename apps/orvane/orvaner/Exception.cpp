#include "orvaner/Exception.h"

#include <utility>

namespace orvane {

Exception::Exception(std::string message) : message_(std::move(message)) {}

const char* Exception::what() const noexcept { return message_.c_str(); }

// The opening backquote and closing straight quote are the messages' own.
NotImplementedException::NotImplementedException(const std::string& method)
    : Exception("method `" + method + "' is not implemented") {}

MethodFailedException::MethodFailedException(const std::string& method, const std::string& plugin,
                                             const std::string& reason)
    : Exception(plugin + "->" + method + "() failed: " + reason) {}

InvalidPluginException::InvalidPluginException(const std::string& plugin, const std::string& reason)
    : Exception("plugin `" + plugin + "' is invalid: " + reason) {}

}  // namespace orvane
