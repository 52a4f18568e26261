// qorcli runs one host CLI command by hand, exactly as the executor would
// run it for a JSON plugin at boot, or lists the commands that exist.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace qorcli {

/// Loads the command definitions of @p directories in order, then runs the
/// command that @p words name (each word taken as it is, never split
/// again) or prints the help they ask for; no words at all lists the top.
/// A missing directory is skipped without a word (an installation need not
/// have all of them); any other unreadable directory and every definition
/// file that could not be loaded is reported on @p err, and the command
/// still runs. Help goes to @p out; every error goes to @p err, one per
/// line. Returns the exit status: 0 when the command succeeded or known
/// help was printed, 1 otherwise.
int Run(const std::vector<std::string>& words, const std::vector<std::string>& directories,
        std::ostream& out, std::ostream& err);

}  // namespace qorcli
