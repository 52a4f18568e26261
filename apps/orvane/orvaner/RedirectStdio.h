/// Points a process's standard streams at /dev/null and a log file, as a
/// child process needs before it runs on without a terminal.
#pragma once

namespace orvane {

/// Standard input from /dev/null; standard output and standard error
/// appended to @p path (created with mode 0644 if missing). Each step that
/// fails is reported with the logging library's Warning and the rest is
/// still tried; nothing is thrown.
void RedirectStdio(const char* path);

}  // namespace orvane
