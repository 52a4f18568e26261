/// Maps a command path to a command definition and runs it.
///
/// Command definitions are JSON files (comments allowed) found directly in
/// the directories given to AddExternalDirectory, read in the order the
/// directories were added and, inside one directory, in byte-wise name
/// order. A later definition of the same path replaces an earlier one.
///
/// A definition file holds {"commands": [...]}; each command has "path" (a
/// non-empty list of words, none empty or beginning with "-"), "exec" (a
/// non-empty list of strings: the program and its arguments), and
/// optionally "help" and "parameters". Each parameter has "name" (not
/// empty, not beginning with "-", without "="), and optionally "short" (one
/// character, neither "-", "=" nor a digit), "type" ("string", "int" or
/// "bool"; "string" when absent), "required" (false when absent) and "help".
/// "help" and "h" are reserved for help requests. Keys not named here are
/// ignored. A file that breaks any of these rules is skipped as a whole.
///
/// Values: "bool" takes true, false, 1, 0, yes or no (lower case); "int"
/// takes a whole decimal number with an optional leading "-" that fits in
/// 64 signed bits. Values reach the program exactly as given.
///
/// Running a command: an element of "exec" that is exactly "{name}", for a
/// parameter of the command, becomes the parameter's value, or is dropped
/// when the parameter was not given; "{name}" inside a longer element is
/// replaced in place (by nothing when not given). Braces around anything
/// that is not a parameter of the command stay as they are. Every given
/// parameter is also exported as QORCLI_<NAME> (upper case, characters
/// other than letters and digits as "_") on top of the caller's
/// environment, from which the variables of parameters not given are
/// removed. The program is found through PATH when its name has no "/",
/// starts with the caller's standard descriptors only (0, 1 and 2), every
/// signal at its default action and none blocked, and is waited for.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace CppTools::AutoCli {

class CommandInput;
class CommandOutput;

/// One parameter of a command definition.
struct ParameterDefinition {
  enum class Type { String, Int, Bool };

  std::string name;
  std::string shortName;  ///< without the "-"; empty when there is none
  Type type = Type::String;
  bool required = false;
  std::string help;
};

/// One command: the words that name it, its parameters and the program
/// (with "{name}" placeholders) that runs it.
struct CommandDefinition {
  std::vector<std::string> path;
  std::string help;
  std::vector<ParameterDefinition> parameters;
  std::vector<std::string> exec;
  std::string sourceFile;  ///< the definition file it was read from

  /// The parameter a name given on a command line refers to, as the option
  /// parser hands names on: a long name without its "--", a short one with
  /// its "-". Null when it names none of this command's.
  const ParameterDefinition* FindParameter(const std::string& givenName) const;
};

/// How a command's program run ended.
struct ProgramResult {
  std::string startError;  ///< why the program could not be started; empty when it ran
  int exitStatus = 0;      ///< its exit status when it exited
  int signal = 0;          ///< the signal that ended it; 0 when it exited
};

class Dispatcher {
 public:
  Dispatcher();
  virtual ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Loads every command definition file of @p directory: each entry whose
  /// name ends in ".json". Throws std::system_error (a std::runtime_error)
  /// naming the directory and the reason when it cannot be read; its code()
  /// tells a missing directory from other failures. An entry that cannot be
  /// read as a regular file (a directory, a dangling link, no permission)
  /// or parsed is skipped and its problem added to GetLoadErrors(); the
  /// other files still load.
  void AddExternalDirectory(const std::string& directory);

  /// Problems met while loading definition files, in the order met, each
  /// beginning with the file's path.
  const std::vector<std::string>& GetLoadErrors() const;

  /// Validates the input's parameters against the definition of its command
  /// path and runs the command's program, waiting for it. Every problem
  /// (unknown command or parameter, a parameter given twice, a missing
  /// required parameter, a value of the wrong type, a program that cannot
  /// start or fails) is added to @p output's errors; nothing runs unless
  /// the parameters are all valid. Throws std::invalid_argument when
  /// @p output is null.
  void ExecuteCommand(const std::shared_ptr<CommandInput>& input,
                      const std::shared_ptr<CommandOutput>& output);

  /// The definition of exactly this path, or null.
  const CommandDefinition* FindCommand(const std::vector<std::string>& path) const;

  /// Whether @p path names a command or a namespace (a path some command's
  /// path begins with). The empty path, the top, is always known.
  bool IsKnownPath(const std::vector<std::string>& path) const;

  /// The words that can follow @p path in a command's path: the names of
  /// the namespaces and commands directly below it, each once, in byte-wise
  /// order. Empty for a path that names nothing or only a command.
  std::vector<std::string> GetNextWords(const std::vector<std::string>& path) const;

  /// Writes the help for @p path: the command's usage and parameters when it
  /// names a command, then the namespaces and commands below it (with their
  /// parameters) when it is a namespace. An empty path lists the top.
  void WriteHelp(const std::vector<std::string>& path, std::ostream& stream) const;

 protected:
  /// Starts a checked command's program as the class comment says and waits
  /// for it: the only place a program starts, which a subclass may replace.
  virtual ProgramResult RunCommandProgram(
      const std::vector<std::string>& arguments,
      const std::vector<std::pair<std::string, std::string>>& environment,
      const std::vector<std::string>& removedVariables);

 private:
  void LoadDefinitionFile(const std::string& file);
  void WriteCommandHelp(const CommandDefinition& command, std::ostream& stream) const;
  void WriteNamespaceHelp(const std::vector<std::string>& path, std::ostream& stream) const;

  std::map<std::vector<std::string>, CommandDefinition> commands_;
  std::vector<std::string> loadErrors_;
};

}  // namespace CppTools::AutoCli
