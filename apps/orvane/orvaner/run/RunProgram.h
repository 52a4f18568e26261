/// Runs an external program to its end, as init mode does with the host's
/// syslog daemon and event daemon.
#pragma once

namespace orvane {

/// Forks a child that keeps only its standard streams (input from
/// /dev/null, output and error to /dev/null) and executes @p argv[0] with
/// @p argv and @p environment (both null-terminated), then waits for it.
/// True exactly when the child exited normally with status 0; false when
/// the fork failed, the program could not be executed (the child logs why
/// and exits 1), it exited otherwise or a signal ended it.
bool RunProgram(char* const argv[], char* const environment[]);

}  // namespace orvane
