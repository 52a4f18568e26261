/// Logging set-up and the kernel-log alert logger.
#pragma once

#include <functional>
#include <string>

namespace orvane {

/// Sets up the host logging library: syslog under @p identifier and a
/// standard-output channel with millisecond UTC timestamps, both at "info".
/// Standard output becomes unbuffered. Throws Exception when an output
/// cannot be created or added.
void InitLogging(const char* identifier);

/// Writes one line into the kernel system log, such as "Activating Orvane
/// plugin foo.". When the kernel log cannot be written the line goes to
/// syslog at error priority, after a line saying why. Never throws; keeps no
/// state between calls, so any thread may call it.
void LogAlert(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Where LogAlert's formatted lines go instead of the kernel log, until
/// reset with an empty function. For tests, which must not write the
/// machine's kernel log.
void ReplaceAlertLogSink(std::function<void(const std::string&)> sink);

}  // namespace orvane
