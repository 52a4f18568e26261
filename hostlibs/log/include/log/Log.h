/// The host logging library on Linux.
///
/// Messages carry a numeric level: 0 to 2 are errors, 3 warnings, 4 notices,
/// 5 information and 6 or more debugging. They are written to every output
/// whose threshold admits them: the syslog output (ident given at set-up) and
/// a standard-output channel with UTC timestamps. Before any output exists,
/// messages go to standard error so that none is lost.
///
/// Threshold names in the settings dictionaries: "error", "warning",
/// "notice", "info", "debug".
#pragma once

#include <cstdint>

struct Dictionary;
struct LogOutput;

enum : int {
  LOG_LEVEL_ERROR = 2,
  LOG_LEVEL_WARNING = 3,
  LOG_LEVEL_NOTICE = 4,
  LOG_LEVEL_INFO = 5,
  LOG_LEVEL_DEBUG = 6,
};

/// Opens syslog with @p ident (or the dictionary's "log.syslogID") and adds
/// the syslog output at the threshold "log.syslogLevel" (default "info").
/// False when the ident is empty, the threshold unknown or syslog is
/// already set up.
bool Log_InitWithSyslogInt(const char* ident, const Dictionary* settings);

/// A standard-output channel: threshold "log.stdoutLevel" (default "info"),
/// timestamps when "log.useTimeStamps.stdio", with milliseconds when
/// "log.useMilliseconds.stdio". Null when standard output is not open or a
/// setting is invalid.
LogOutput* Log_NewStdioOutput(const char* ident, const Dictionary* settings);

/// Starts writing to @p output and takes ownership of it. False when it is
/// null or already added (it then stays added once).
bool Log_AddOutput(LogOutput* output);

/// Messages at @p level or below are also copied to standard error.
/// This port has no message groups, so @p groupMask is accepted and unused.
void Log_SetStderrLevel(int level, std::uint32_t groupMask);

/// Records the product that is logging.
void Log_SetProductInfo(const char* name, const char* version, const char* buildNumber,
                        const char* compilationOption);
/// The product recorded by Log_SetProductInfo, as "name version build (option)";
/// valid until the next Log_SetProductInfo.
const char* Log_GetProductInfo();

/// Closes every output and syslog; the library is as before set-up.
void Log_Exit();

/// Writes a printf-style message at @p level. A trailing line end in the
/// message is optional: every output ends each message with exactly one.
void Log_Level(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
/// Log_Level at the warning level.
void Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
