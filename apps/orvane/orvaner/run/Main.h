/// The run of the program, from the command line to the exit status.
#pragma once

namespace orvane {

/// Runs orvane with the command line and environment handed to main and
/// returns the exit status: 0 for --help and a completed run, 1 for a usage
/// error, a rejected combination of options, a failed logging set-up, an
/// executor process that could not be started, or a standard exception while
/// the plugins were loaded or run.
int Main(int argc, char* argv[], char* envp[]);

}  // namespace orvane
