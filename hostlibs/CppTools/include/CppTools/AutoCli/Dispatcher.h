/// Maps a command path to a command definition and runs it.
///
/// Command definitions are JSON files (comments allowed) found directly in
/// the directories given to AddExternalDirectory, read in the order the
/// directories were added and, inside one directory, in byte-wise name
/// order. A later definition of the same path replaces an earlier one.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <string>
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
};

class Dispatcher {
 public:
  Dispatcher();
  virtual ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Loads every command definition file of @p directory. Throws
  /// std::runtime_error naming the directory when it cannot be read. A
  /// definition file that cannot be read or parsed is skipped and its
  /// problem added to GetLoadErrors(); the other files still load.
  void AddExternalDirectory(const std::string& directory);

  /// Problems met while loading definition files, in the order met.
  const std::vector<std::string>& GetLoadErrors() const;

  /// Validates the input's parameters against the definition of its command
  /// path and runs the command's program, waiting for it. Every problem
  /// (unknown command or parameter, missing required parameter, a value of
  /// the wrong type, a program that fails) is added to @p output's errors.
  void ExecuteCommand(const std::shared_ptr<CommandInput>& input,
                      const std::shared_ptr<CommandOutput>& output);

  /// The definition of exactly this path, or null.
  const CommandDefinition* FindCommand(const std::vector<std::string>& path) const;

  /// Writes the help for @p path: the namespaces and commands below it, or
  /// the command's parameters when it names a command. An empty path lists
  /// everything at the top.
  void WriteHelp(const std::vector<std::string>& path, std::ostream& stream) const;

 private:
  std::map<std::vector<std::string>, CommandDefinition> commands_;
  std::vector<std::string> loadErrors_;
};

}  // namespace CppTools::AutoCli
