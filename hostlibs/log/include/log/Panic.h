/// The host's end of a process whose invariants no longer hold.
#pragma once

/// Writes the printf-style message to standard error and to every log
/// output, then aborts the process. Never returns.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));
