/// Raising a system alert: the host-wide notice an operator sees without
/// asking, used for broken plugins and missing barrier providers.
#pragma once

#include <functional>
#include <string>

namespace orvane {

/// Raises @p text through the host's system-information service. Never throws.
void RaiseSystemAlert(const std::string& text);

/// Where alerts go instead of the host service, until reset with an empty
/// function. For tests, which must not write the machine's kernel log.
void ReplaceSystemAlertSink(std::function<void(const std::string&)> sink);

}  // namespace orvane
