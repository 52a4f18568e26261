/// Splits one command line into a command path and named parameters.
///
/// The line is split into words like a POSIX shell does, without any
/// expansion: blanks (space, tab, newline) separate words; single quotes
/// keep everything up to the next single quote; double quotes keep
/// everything up to the next unescaped double quote, a backslash in them
/// escaping only $, `, ", \ and a newline; outside quotes a backslash keeps
/// the next character (a backslash-newline joins lines, a backslash at the
/// very end stays a backslash). Other shell characters (; | & < > $ * ...)
/// are ordinary characters.
///
/// Leading words that do not begin with "-" are the command path; after them
/// come parameters: "--name=value", "--name value", "-x value" (a short name,
/// resolved later by the dispatcher), and "--name" or "-x" followed by
/// another option or the end of the line (value "true"). A long name may
/// not begin with "-": "---x" is a parse error, not the short name x.
///
/// A word is an option when it begins with "-", is longer than "-" alone
/// and its second character is not a digit. So a value may begin with "-"
/// when it looks like a negative number ("--count -3") or is "-" alone; any
/// other value that begins with "-" must be given as "--name=value".
///
/// A word "--help" or "-h" anywhere asks for help instead: the help of the
/// namespace or command that the path before it names.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace CppTools::AutoCli {

class CommandInput;
class Dispatcher;

class OptionParser {
 public:
  /// @p helpSource supplies the command definitions that a help request
  /// lists; @p helpStream receives the help text (standard output when
  /// null). Without a source the help says only that no command
  /// definitions are available.
  explicit OptionParser(const Dispatcher* helpSource = nullptr, std::ostream* helpStream = nullptr);

  /// Whether a word is an option ("--name", "-x", either with "=value")
  /// rather than a value: "-" alone and "-<digit>..." are values.
  static bool IsOption(const std::string& word);

  /// Splits @p line into words and parses them. True only when the line
  /// asked for help: the help has then been printed and there is nothing to
  /// dispatch. False otherwise; GetParseErrors then says whether the line
  /// was well formed. A line that cannot be split (an unterminated quote, a
  /// NUL byte) is a parse error even when it contains "--help".
  bool ParseString(const std::string& line);

  /// Parses words that are already split, such as a program's arguments;
  /// each word is taken as it is. Returns as ParseString does.
  bool ParseWords(const std::vector<std::string>& words);

  /// Why the last line could not be parsed; empty when it could.
  const std::vector<std::string>& GetParseErrors() const;
  /// The command path of the last line, such as {"network", "firewall", "set"}.
  const std::vector<std::string>& GetCommandPath() const;
  /// The parameters of the last line in the order given. Long names are
  /// given without their "--" ("enabled"); short names keep a single
  /// leading "-" ("-e") so the dispatcher can resolve them.
  const std::vector<std::pair<std::string, std::string>>& GetCommandParameters() const;
  /// The last line as a command for the dispatcher named @p dispatcherName:
  /// its path and its parameters in order.
  std::shared_ptr<CommandInput> MakeCommandInput(const std::string& dispatcherName) const;

 private:
  void Reset();
  bool SplitWords(const std::string& line, std::vector<std::string>& words);
  void ParseParameters(const std::vector<std::string>& words, std::size_t first);
  void WriteHelp() const;

  const Dispatcher* helpSource_;
  std::ostream* helpStream_;
  std::vector<std::string> parseErrors_;
  std::vector<std::string> commandPath_;
  std::vector<std::pair<std::string, std::string>> parameters_;
};

}  // namespace CppTools::AutoCli
