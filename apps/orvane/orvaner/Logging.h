/// Logging set-up and the kernel-log alert logger.
#pragma once

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

}  // namespace orvane
