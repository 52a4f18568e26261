/// Splits one command line into a command path and named parameters.
///
/// The line is split into words like a POSIX shell does (quotes and
/// backslash escapes, no expansion). Leading words that do not begin with
/// "-" are the command path; after them come parameters: "--name=value",
/// "--name value", "-x value" (a short name, resolved later by the
/// dispatcher) and "--name" followed by another option or the end of the
/// line (value "true"). "--help" or "-h" anywhere asks for help instead.
#pragma once

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace CppTools::AutoCli {

class Dispatcher;

class OptionParser {
 public:
  /// @p helpSource supplies the command definitions that a help request
  /// lists; @p helpStream receives the help text. Without a source the help
  /// says only that no command definitions are available.
  explicit OptionParser(const Dispatcher* helpSource = nullptr, std::ostream* helpStream = nullptr);

  /// Parses @p line. True only when the line asked for help: the help has
  /// then been printed and there is nothing to dispatch. False otherwise;
  /// GetParseErrors then says whether the line was well formed.
  bool ParseString(const std::string& line);

  /// Why the last line could not be parsed; empty when it could.
  const std::vector<std::string>& GetParseErrors() const;
  /// The command path of the last line, such as {"network", "firewall", "set"}.
  const std::vector<std::string>& GetCommandPath() const;
  /// The parameters of the last line in the order given. Short names keep
  /// a single leading "-" ("-e") so the dispatcher can resolve them.
  const std::vector<std::pair<std::string, std::string>>& GetCommandParameters() const;

 private:
  const Dispatcher* helpSource_;
  std::ostream* helpStream_;
  std::vector<std::string> parseErrors_;
  std::vector<std::string> commandPath_;
  std::vector<std::pair<std::string, std::string>> parameters_;
};

}  // namespace CppTools::AutoCli
