#include "CppTools/AutoCli/Dispatcher.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <set>
#include <stdexcept>
#include <system_error>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "DefinitionFile.h"
#include "ProgramRunner.h"

namespace CppTools::AutoCli {
namespace {

constexpr const char* kDefinitionSuffix = ".json";
constexpr const char* kEnvironmentPrefix = "QORCLI_";

std::string JoinWords(const std::vector<std::string>& words) {
  std::string joined;
  for (const std::string& word : words) {
    if (!joined.empty()) {
      joined += ' ';
    }
    joined += word;
  }
  return joined;
}

bool StartsWith(const std::vector<std::string>& path, const std::vector<std::string>& prefix) {
  return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

const char* TypeName(ParameterDefinition::Type type) {
  switch (type) {
    case ParameterDefinition::Type::Int: return "int";
    case ParameterDefinition::Type::Bool: return "bool";
    case ParameterDefinition::Type::String: break;
  }
  return "string";
}

bool IsBoolValue(const std::string& value) {
  static const std::set<std::string> kBoolValues = {"true", "false", "1", "0", "yes", "no"};
  return kBoolValues.count(value) != 0;
}

// An optional "-", then decimal digits only, within 64 signed bits.
bool IsIntValue(const std::string& value) {
  if (value.empty() || value[0] == '+') {
    return false;
  }
  std::int64_t number = 0;
  const char* end = value.data() + value.size();
  auto [stop, error] = std::from_chars(value.data(), end, number, 10);
  return error == std::errc() && stop == end;
}

std::string EnvironmentName(const std::string& parameterName) {
  std::string name = kEnvironmentPrefix;
  for (char character : parameterName) {
    if (character >= 'a' && character <= 'z') {
      name += static_cast<char>(character - 'a' + 'A');
    } else if ((character >= 'A' && character <= 'Z') || (character >= '0' && character <= '9')) {
      name += character;
    } else {
      name += '_';
    }
  }
  return name;
}

/// How a parameter is shown to the operator: "--name" or "-x".
std::string Spelling(const std::string& givenName) {
  return givenName.size() > 1 && givenName[0] == '-' ? givenName : "--" + givenName;
}

/// The command's parameters as given, validated; problems go to errors.
class ParameterCheck {
 public:
  ParameterCheck(const CommandDefinition& command, std::vector<std::string>& errors)
      : command_(command), commandName_(JoinWords(command.path)), errors_(errors) {}

  /// Values by definition name, for the parameters that were given.
  std::map<std::string, std::string> Check(
      const std::vector<std::pair<std::string, std::string>>& given) {
    std::map<std::string, std::string> values;
    for (const auto& [givenName, value] : given) {
      const ParameterDefinition* parameter = command_.FindParameter(givenName);
      if (parameter == nullptr) {
        errors_.push_back("unknown parameter '" + Spelling(givenName) + "' for command '" +
                          commandName_ + "'");
        continue;
      }
      if (!values.emplace(parameter->name, value).second) {
        errors_.push_back("parameter '--" + parameter->name +
                          "' given more than once for command '" + commandName_ + "'");
        continue;
      }
      CheckType(*parameter, value);
    }
    for (const ParameterDefinition& parameter : command_.parameters) {
      if (parameter.required && values.count(parameter.name) == 0) {
        errors_.push_back("missing required parameter '--" + parameter.name + "' for command '" +
                          commandName_ + "'");
      }
    }
    return values;
  }

 private:
  void CheckType(const ParameterDefinition& parameter, const std::string& value) {
    std::string expected;
    if (parameter.type == ParameterDefinition::Type::Bool && !IsBoolValue(value)) {
      expected = "true, false, 1, 0, yes or no";
    } else if (parameter.type == ParameterDefinition::Type::Int && !IsIntValue(value)) {
      expected = "a whole decimal number from -9223372036854775808 to 9223372036854775807";
    } else {
      return;
    }
    errors_.push_back("parameter '--" + parameter.name + "' of command '" + commandName_ +
                      "' takes " + expected + ", not '" + value + "'");
  }

  const CommandDefinition& command_;
  std::string commandName_;
  std::vector<std::string>& errors_;
};

/// One exec element with every "{name}" of a parameter of the command
/// replaced by its value, or by nothing when it was not given.
std::string Substitute(const std::string& element, const CommandDefinition& command,
                       const std::map<std::string, std::string>& values) {
  std::string result;
  std::size_t position = 0;
  while (position < element.size()) {
    std::size_t open = element.find('{', position);
    std::size_t close = open == std::string::npos ? open : element.find('}', open + 1);
    if (close == std::string::npos) {
      result.append(element, position, std::string::npos);
      break;
    }
    std::string name = element.substr(open + 1, close - open - 1);
    bool isParameter = std::any_of(
        command.parameters.begin(), command.parameters.end(),
        [&name](const ParameterDefinition& parameter) { return parameter.name == name; });
    if (!isParameter) {
      // Not ours (a shell or awk brace): keep the "{" and look further on.
      result.append(element, position, open + 1 - position);
      position = open + 1;
      continue;
    }
    result.append(element, position, open - position);
    if (auto value = values.find(name); value != values.end()) {
      result += value->second;
    }
    position = close + 1;
  }
  return result;
}

std::vector<std::string> BuildArguments(const CommandDefinition& command,
                                        const std::map<std::string, std::string>& values) {
  std::vector<std::string> arguments;
  for (const std::string& element : command.exec) {
    bool isWholePlaceholder = element.size() > 2 && element.front() == '{' && element.back() == '}';
    if (isWholePlaceholder) {
      std::string name = element.substr(1, element.size() - 2);
      const bool isParameter = std::any_of(
          command.parameters.begin(), command.parameters.end(),
          [&name](const ParameterDefinition& parameter) { return parameter.name == name; });
      if (isParameter) {
        if (auto value = values.find(name); value != values.end()) {
          arguments.push_back(value->second);
        }
        continue;
      }
    }
    arguments.push_back(Substitute(element, command, values));
  }
  return arguments;
}

std::string ParameterSummary(const ParameterDefinition& parameter) {
  std::string summary = "--" + parameter.name;
  if (!parameter.shortName.empty()) {
    summary += ", -" + parameter.shortName;
  }
  summary += std::string(" <") + TypeName(parameter.type) + ">";
  if (parameter.required) {
    summary += " (required)";
  }
  return summary;
}

void WriteParameters(const CommandDefinition& command, const std::string& indent,
                     std::ostream& stream) {
  for (const ParameterDefinition& parameter : command.parameters) {
    stream << indent << ParameterSummary(parameter);
    if (!parameter.help.empty()) {
      stream << "  " << parameter.help;
    }
    stream << '\n';
  }
}

}  // namespace

const ParameterDefinition* CommandDefinition::FindParameter(const std::string& givenName) const {
  const bool isShort = givenName.size() > 1 && givenName[0] == '-';
  for (const ParameterDefinition& parameter : parameters) {
    if (isShort ? givenName.substr(1) == parameter.shortName : givenName == parameter.name) {
      return &parameter;
    }
  }
  return nullptr;
}

Dispatcher::Dispatcher() = default;

Dispatcher::~Dispatcher() = default;

void Dispatcher::AddExternalDirectory(const std::string& directory) {
  std::error_code error;
  std::filesystem::directory_iterator entries(directory, error);
  std::vector<std::string> names;
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    std::string name = entries->path().filename().string();
    if (name.ends_with(kDefinitionSuffix)) {
      names.push_back(name);
    }
  }
  if (error) {
    throw std::system_error(error, "cannot read command definition directory '" + directory + "'");
  }
  // std::string orders by unsigned bytes, which is the byte-wise name order.
  std::sort(names.begin(), names.end());
  std::string prefix = directory.ends_with('/') ? directory : directory + "/";
  for (const std::string& name : names) {
    LoadDefinitionFile(prefix + name);
  }
}

void Dispatcher::LoadDefinitionFile(const std::string& file) {
  try {
    for (CommandDefinition& command : detail::ReadDefinitionFile(file)) {
      std::vector<std::string> path = command.path;
      commands_.insert_or_assign(std::move(path), std::move(command));
    }
  } catch (const std::exception& error) {
    loadErrors_.emplace_back(error.what());
  }
}

const std::vector<std::string>& Dispatcher::GetLoadErrors() const { return loadErrors_; }

void Dispatcher::ExecuteCommand(const std::shared_ptr<CommandInput>& input,
                                const std::shared_ptr<CommandOutput>& output) {
  if (output == nullptr) {
    throw std::invalid_argument("ExecuteCommand needs an output to report to");
  }
  if (input == nullptr) {
    output->AddError("no command was given");
    return;
  }
  const std::vector<std::string>& path = input->GetCommandPath();
  const CommandDefinition* command = FindCommand(path);
  if (command == nullptr) {
    std::string error = "unknown command '" + JoinWords(path) + "'";
    if (!path.empty() && IsKnownPath(path)) {
      error += ": it is a namespace; name one of its commands";
    }
    output->AddError(error);
    return;
  }
  std::vector<std::string> errors;
  std::map<std::string, std::string> values =
      ParameterCheck(*command, errors).Check(input->GetParameters());
  for (const std::string& error : errors) {
    output->AddError(error);
  }
  if (!errors.empty()) {
    return;
  }

  std::string commandName = JoinWords(command->path);
  std::vector<std::string> arguments = BuildArguments(*command, values);
  if (arguments.empty()) {
    output->AddError("command '" + commandName +
                     "' has no program to run: its exec names only parameters not given");
    return;
  }
  // A parameter not given is absent from the environment even when the
  // caller inherited a variable of that name (qorcli run from a command).
  std::vector<std::pair<std::string, std::string>> environment;
  std::vector<std::string> notGiven;
  for (const ParameterDefinition& parameter : command->parameters) {
    if (auto value = values.find(parameter.name); value != values.end()) {
      environment.emplace_back(EnvironmentName(parameter.name), value->second);
    } else {
      notGiven.push_back(EnvironmentName(parameter.name));
    }
  }
  const ProgramResult result = RunCommandProgram(arguments, environment, notGiven);
  if (!result.startError.empty()) {
    output->AddError("command '" + commandName + "' could not run '" + arguments[0] +
                     "': " + result.startError);
  } else if (result.signal != 0) {
    output->AddError("command '" + commandName + "' killed by signal " +
                     std::to_string(result.signal));
  } else if (result.exitStatus != 0) {
    output->AddError("command '" + commandName + "' failed with status " +
                     std::to_string(result.exitStatus));
  }
}

ProgramResult Dispatcher::RunCommandProgram(
    const std::vector<std::string>& arguments,
    const std::vector<std::pair<std::string, std::string>>& environment,
    const std::vector<std::string>& removedVariables) {
  return detail::RunProgram(arguments, environment, removedVariables);
}

const CommandDefinition* Dispatcher::FindCommand(const std::vector<std::string>& path) const {
  auto found = commands_.find(path);
  return found == commands_.end() ? nullptr : &found->second;
}

bool Dispatcher::IsKnownPath(const std::vector<std::string>& path) const {
  // The map is ordered, so the first path not below `path` ends the range.
  auto first = commands_.lower_bound(path);
  return path.empty() || (first != commands_.end() && StartsWith(first->first, path));
}

std::vector<std::string> Dispatcher::GetNextWords(const std::vector<std::string>& path) const {
  // The paths below `path` form one range of the ordered map, in which the
  // paths through one next word lie together.
  std::vector<std::string> words;
  for (auto entry = commands_.upper_bound(path);
       entry != commands_.end() && StartsWith(entry->first, path); ++entry) {
    const std::string& word = entry->first[path.size()];
    if (words.empty() || words.back() != word) {
      words.push_back(word);
    }
  }
  return words;
}

void Dispatcher::WriteHelp(const std::vector<std::string>& path, std::ostream& stream) const {
  const CommandDefinition* command = FindCommand(path);
  if (!IsKnownPath(path)) {
    stream << "unknown command or namespace '" << JoinWords(path) << "'\n";
    return;
  }
  if (path.empty() && commands_.empty()) {
    stream << "no commands are defined\n";
    return;
  }
  if (command != nullptr) {
    WriteCommandHelp(*command, stream);
  }
  auto below = commands_.upper_bound(path);
  if (below != commands_.end() && StartsWith(below->first, path)) {
    if (command != nullptr) {
      stream << '\n';
    }
    WriteNamespaceHelp(path, stream);
  }
}

void Dispatcher::WriteCommandHelp(const CommandDefinition& command, std::ostream& stream) const {
  stream << "Usage: " << JoinWords(command.path);
  for (const ParameterDefinition& parameter : command.parameters) {
    std::string usage = "--" + parameter.name + " <" + TypeName(parameter.type) + ">";
    stream << ' ' << (parameter.required ? usage : "[" + usage + "]");
  }
  stream << '\n';
  if (!command.help.empty()) {
    stream << '\n' << command.help << '\n';
  }
  if (!command.parameters.empty()) {
    stream << "\nParameters:\n";
    WriteParameters(command, "  ", stream);
  }
}

void Dispatcher::WriteNamespaceHelp(const std::vector<std::string>& path,
                                    std::ostream& stream) const {
  std::vector<std::vector<std::string>> namespaces;
  std::vector<const CommandDefinition*> commands;
  for (auto entry = commands_.upper_bound(path);
       entry != commands_.end() && StartsWith(entry->first, path); ++entry) {
    const std::vector<std::string>& commandPath = entry->first;
    if (commandPath.size() == path.size() + 1) {
      commands.push_back(&entry->second);
    }
    if (commandPath.size() > path.size() + 1) {
      std::vector<std::string> child(commandPath.begin(),
                                     commandPath.begin() + static_cast<long>(path.size()) + 1);
      if (namespaces.empty() || namespaces.back() != child) {
        namespaces.push_back(std::move(child));
      }
    }
  }
  stream << "Usage: " << (path.empty() ? "" : JoinWords(path) + " ")
         << "<namespace>... <command> [--<name> <value>]...\n";
  if (!namespaces.empty()) {
    stream << "\nNamespaces:\n";
    for (const std::vector<std::string>& child : namespaces) {
      stream << "  " << JoinWords(child) << '\n';
    }
  }
  if (!commands.empty()) {
    stream << "\nCommands:\n";
    for (const CommandDefinition* command : commands) {
      stream << "  " << JoinWords(command->path);
      if (!command->help.empty()) {
        stream << "  " << command->help;
      }
      stream << '\n';
      WriteParameters(*command, "      ", stream);
    }
  }
}

}  // namespace CppTools::AutoCli
