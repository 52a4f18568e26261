// qorcli runs one host CLI command by hand, exactly as the executor would
// run it for a JSON plugin at boot, or lists the commands that exist.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace qorcli {

/// The hidden first argument that makes qorcli the helper of its bash
/// completion: `qorcli --complete WORD...` prints what may follow WORD...
/// (see Complete) and runs nothing. No help lists it. A command path never
/// begins with "-", so no command line of the definitions can mean it.
inline constexpr const char* kCompleteOption = "--complete";

/// Loads the command definitions of @p directories in order, then runs the
/// command that @p words name (each word taken as it is, never split
/// again) or prints the help they ask for; no words at all lists the top.
/// A missing directory is skipped without a word (an installation need not
/// have all of them); any other unreadable directory and every definition
/// file that could not be loaded is reported on @p err, and the command
/// still runs. Help goes to @p out; every error goes to @p err, one per
/// line. Returns the exit status: 0 when the command succeeded or known
/// help was printed, 1 otherwise. When the first word is kCompleteOption,
/// does what Complete does with the words after it instead and returns 0.
int Run(const std::vector<std::string>& words, const std::vector<std::string>& directories,
        std::ostream& out, std::ostream& err);

/// Writes to @p out, one per line, the words that may come next on a
/// command line that begins with @p words (the words before the one being
/// typed), as the parser and the definitions of @p directories read it:
/// - while the line is still the command path, the namespaces and commands
///   directly below it, in byte-wise order;
/// - when the path names a command, "--name" for each of its parameters
///   not given yet (by long or short name), in the definition's order;
/// - after an option that still waits for its value ("--name" or "-x" as
///   the last word): for a bool parameter, its values true, false, 1, 0,
///   yes and no before the other parameters (an option instead leaves the
///   value "true"); for any other parameter, nothing.
/// A path that names nothing, or a line that asks for help, gets nothing.
/// Problems with the definitions are not reported: that is a real run's job.
void Complete(const std::vector<std::string>& words, const std::vector<std::string>& directories,
              std::ostream& out);

}  // namespace qorcli
