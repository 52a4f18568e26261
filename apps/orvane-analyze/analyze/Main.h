/// orvane-analyze: reads the run records that orvane writes and explains a
/// run, or checks a plugin set offline (verify).
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace orvane::analyze {

/// The program's entry: runs the command of @p argv on the standard streams.
int Main(int argc, char* argv[]);

/// Runs the command that @p arguments (without the program's name) give:
/// its output on @p out, every error as one line on @p err. Returns the
/// exit status: 0 done, 1 a record that cannot be used, an output that
/// cannot be written or a finding of verify, 2 a usage error (with the usage).
int Run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

}  // namespace orvane::analyze
