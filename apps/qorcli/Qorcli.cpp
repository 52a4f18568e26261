#include "Qorcli.h"

#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <system_error>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"
#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"

namespace qorcli {
namespace {

constexpr const char* kErrorPrefix = "qorcli: ";
constexpr const char* kDispatcherName = "qorcli";
// The values a bool parameter takes, in the order its help gives them.
constexpr const char* kBoolValues[] = {"true", "false", "1", "0", "yes", "no"};

using CppTools::AutoCli::CommandDefinition;
using CppTools::AutoCli::ParameterDefinition;

void LoadDefinitions(CppTools::AutoCli::Dispatcher& dispatcher,
                     const std::vector<std::string>& directories, std::ostream& err) {
  for (const std::string& directory : directories) {
    try {
      dispatcher.AddExternalDirectory(directory);
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::no_such_file_or_directory) {
        err << kErrorPrefix << error.what() << '\n';
      }
    }
  }
  for (const std::string& error : dispatcher.GetLoadErrors()) {
    err << kErrorPrefix << error << '\n';
  }
}

// Whether the last word leaves its value to the next one: it is "--name" or
// "-x" without "=". Then the parameter it names, null when it names none of
// the command's; nothing when the last word is anything else.
std::optional<const ParameterDefinition*> ValueAwaited(const std::vector<std::string>& words,
                                                       std::size_t pathLength,
                                                       const CommandDefinition& command) {
  if (words.size() <= pathLength) {
    return std::nullopt;
  }
  const std::string& last = words.back();
  if (!CppTools::AutoCli::OptionParser::IsOption(last) || last.find('=') != std::string::npos ||
      last == "--" || last.starts_with("---")) {
    return std::nullopt;
  }
  return command.FindParameter(last.starts_with("--") ? last.substr(2) : last);
}

}  // namespace

void Complete(const std::vector<std::string>& words, const std::vector<std::string>& directories,
              std::ostream& out) {
  CppTools::AutoCli::Dispatcher dispatcher;
  std::ostringstream loadProblems;
  LoadDefinitions(dispatcher, directories, loadProblems);

  std::ostringstream help;
  CppTools::AutoCli::OptionParser parser(&dispatcher, &help);
  if (parser.ParseWords(words)) {
    return;  // a help request: nothing after it changes what the line does
  }
  const std::vector<std::string>& path = parser.GetCommandPath();
  if (path.size() == words.size()) {
    for (const std::string& word : dispatcher.GetNextWords(path)) {
      out << word << '\n';
    }
  }
  const CommandDefinition* command = dispatcher.FindCommand(path);
  if (command == nullptr) {
    return;
  }

  if (const auto awaited = ValueAwaited(words, path.size(), *command)) {
    if (*awaited == nullptr || (*awaited)->type != ParameterDefinition::Type::Bool) {
      return;  // a string, a number or an unknown option's value: nothing to guess
    }
    for (const char* value : kBoolValues) {
      out << value << '\n';
    }
  }
  std::set<std::string> given;
  for (const auto& [name, value] : parser.GetCommandParameters()) {
    if (const ParameterDefinition* parameter = command->FindParameter(name)) {
      given.insert(parameter->name);
    }
  }
  for (const ParameterDefinition& parameter : command->parameters) {
    if (given.count(parameter.name) == 0) {
      out << "--" << parameter.name << '\n';
    }
  }
}

int Run(const std::vector<std::string>& words, const std::vector<std::string>& directories,
        std::ostream& out, std::ostream& err) {
  if (!words.empty() && words.front() == kCompleteOption) {
    Complete({words.begin() + 1, words.end()}, directories, out);
    return 0;
  }
  CppTools::AutoCli::Dispatcher dispatcher;
  LoadDefinitions(dispatcher, directories, err);
  if (words.empty()) {
    dispatcher.WriteHelp({}, out);
    return 0;
  }

  std::ostringstream help;
  CppTools::AutoCli::OptionParser parser(&dispatcher, &help);
  if (parser.ParseWords(words)) {
    if (dispatcher.IsKnownPath(parser.GetCommandPath())) {
      out << help.str();
      return 0;
    }
    err << kErrorPrefix << help.str();
    return 1;
  }
  if (!parser.GetParseErrors().empty()) {
    for (const std::string& error : parser.GetParseErrors()) {
      err << kErrorPrefix << error << '\n';
    }
    return 1;
  }

  auto output = CppTools::AutoCli::CommandOutput::New();
  dispatcher.ExecuteCommand(parser.MakeCommandInput(kDispatcherName), output);
  for (const std::string& error : output->GetErrors()) {
    err << kErrorPrefix << error << '\n';
  }
  return output->HasError() ? 1 : 0;
}

}  // namespace qorcli
