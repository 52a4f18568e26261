/// orvane-analyze's command line: the command, its operands and the
/// options, checked against what each command takes.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvane::analyze {

/// The usage text, one line per form of the command line.
extern const char* const kUsage;

/// The record read when -r is not given: the newest run's.
std::string DefaultRecord();

/// The command line did not say what orvane-analyze can do. The message
/// says what is wrong, in one line.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& problem) : std::runtime_error(problem) {}
};

struct CommandLine {
  bool help = false;  ///< -h or --help: print the usage and stop
  std::string command;
  std::vector<std::string> operands;       ///< the words after the command
  std::string record;                      ///< -r FILE, or DefaultRecord()
  bool json = false;                       ///< --json
  std::int64_t thresholdMicroseconds = 0;  ///< compare --threshold MS
  std::string root = "/";                  ///< verify --root DIR
};

/// Parses @p arguments (without the program's name). Options may come
/// before or after the command; "--" ends them. Throws UsageError for an
/// unknown command or option, an option without its value or given to a
/// command that does not take it, or a wrong number of operands.
CommandLine ParseCommandLine(const std::vector<std::string>& arguments);

}  // namespace orvane::analyze
