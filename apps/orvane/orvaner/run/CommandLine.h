/// The command line: the option table, the usage text and the checks on the
/// combination of options.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

struct RunOptions;
struct RunState;

enum class ParseOutcome {
  Run,         ///< every option was read
  Help,        ///< --help or -h: print the usage text, nothing else runs
  UsageError,  ///< getopt_long rejected an option and printed why
};

/// Reads the options of @p argv into @p options and @p state with
/// getopt_long. Stops at once at --help. Arguments that are not options are
/// ignored; a bad number after --randomize= or --daemon-wait-timeout is
/// ignored without a message.
ParseOutcome ParseCommandLine(int argc, char* argv[], RunOptions& options, RunState& state);

enum class Combination {
  Valid,
  InvalidDaemonCombination,  ///< daemon mode with anything but start or stop alone
  InvokeIncomplete,          ///< invoke without a method or a plugin list
};

/// Checks the options read as a whole; daemon mode is checked first.
Combination CheckCombination(const RunOptions& options, const RunState& state);

/// Splits a comma list, dropping empty items and trimming nothing.
std::vector<std::string> SplitCommaList(std::string_view list);

/// The usage text, line by line, without line ends.
std::span<const char* const> UsageLines();
/// Prints the usage text on standard output.
void PrintUsage();
/// Prints "usage: <program> --help for usage information" on standard error.
void PrintUsageHint(const char* programPath);

}  // namespace orvane
