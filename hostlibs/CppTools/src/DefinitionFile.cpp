#include "DefinitionFile.h"

#include <boost/json/parse_options.hpp>
#include <boost/json/stream_parser.hpp>
#include <boost/json/value.hpp>
#include <set>
#include <stdexcept>
#include <utility>

#include "hostfile/HostFile.h"

namespace CppTools::AutoCli::detail {
namespace {

/// A breach of the schema at a place in the document, such as
/// "commands[1].parameters[0].type".
class SchemaError : public std::runtime_error {
 public:
  SchemaError(const std::string& where, const std::string& problem)
      : std::runtime_error(where + ": " + problem) {}
};

// A definition file is a few kilobytes; a runaway one is not read.
constexpr std::size_t kMaxDefinitionFileSize = std::size_t{16} * 1024 * 1024;

std::string ReadRegularFile(const std::string& file) {
  hostfile::FileContent content = hostfile::ReadHostFile(file, kMaxDefinitionFileSize);
  if (!content.Ok()) {
    throw std::runtime_error(file + ": " + content.Problem());
  }
  return std::move(content.text);
}

boost::json::value ParseJson(const std::string& file, const std::string& text) {
  boost::json::parse_options options;
  options.allow_comments = true;
  boost::json::stream_parser parser({}, options);
  boost::system::error_code error;
  std::size_t consumed = parser.write(text.data(), text.size(), error);
  if (!error) {
    parser.finish(error);
  }
  if (error) {
    // The parser stops at the offending character; say where that is.
    std::size_t line = 1;
    std::size_t column = 1;
    for (std::size_t index = 0; index < consumed && index < text.size(); ++index) {
      if (text[index] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    throw std::runtime_error(file + ": invalid JSON at line " + std::to_string(line) + ", column " +
                             std::to_string(column) + ": " + error.message());
  }
  return parser.release();
}

const boost::json::object& AsObject(const boost::json::value& value, const std::string& where) {
  if (!value.is_object()) {
    throw SchemaError(where, "must be an object");
  }
  return value.get_object();
}

std::string AsString(const boost::json::value& value, const std::string& where) {
  if (!value.is_string()) {
    throw SchemaError(where, "must be a string");
  }
  return std::string(value.get_string());
}

std::vector<std::string> AsStringList(const boost::json::value& value, const std::string& where) {
  if (!value.is_array()) {
    throw SchemaError(where, "must be a list of strings");
  }
  std::vector<std::string> strings;
  const boost::json::array& array = value.get_array();
  for (std::size_t index = 0; index < array.size(); ++index) {
    strings.push_back(AsString(array[index], where + "[" + std::to_string(index) + "]"));
  }
  if (strings.empty()) {
    throw SchemaError(where, "must not be empty");
  }
  return strings;
}

/// The member @p key of @p object, or null when there is none.
const boost::json::value* Member(const boost::json::object& object, const char* key) {
  return object.if_contains(key);
}

const boost::json::value& RequiredMember(const boost::json::object& object, const char* key,
                                         const std::string& where) {
  const boost::json::value* member = Member(object, key);
  if (member == nullptr) {
    throw SchemaError(where, std::string("has no \"") + key + "\"");
  }
  return *member;
}

ParameterDefinition::Type ReadType(const boost::json::value& value, const std::string& where) {
  std::string type = AsString(value, where);
  if (type == "string") {
    return ParameterDefinition::Type::String;
  }
  if (type == "int") {
    return ParameterDefinition::Type::Int;
  }
  if (type == "bool") {
    return ParameterDefinition::Type::Bool;
  }
  throw SchemaError(where, "must be \"string\", \"int\" or \"bool\", not \"" + type + "\"");
}

ParameterDefinition ReadParameter(const boost::json::value& value, const std::string& where) {
  const boost::json::object& object = AsObject(value, where);
  ParameterDefinition parameter;
  parameter.name = AsString(RequiredMember(object, "name", where), where + ".name");
  if (parameter.name.empty() || parameter.name[0] == '-' ||
      parameter.name.find('=') != std::string::npos) {
    throw SchemaError(where + ".name", "must not be empty, begin with \"-\" or contain \"=\"");
  }
  if (parameter.name == "help") {
    throw SchemaError(where + ".name", "\"help\" is reserved for help requests");
  }
  if (const boost::json::value* shortName = Member(object, "short")) {
    parameter.shortName = AsString(*shortName, where + ".short");
    char character = parameter.shortName.empty() ? '\0' : parameter.shortName[0];
    if (parameter.shortName.size() != 1 || character == '-' || character == '=' ||
        (character >= '0' && character <= '9')) {
      throw SchemaError(where + ".short",
                        "must be one character other than \"-\", \"=\" or a digit");
    }
    if (parameter.shortName == "h") {
      throw SchemaError(where + ".short", "\"h\" is reserved for help requests");
    }
  }
  if (const boost::json::value* type = Member(object, "type")) {
    parameter.type = ReadType(*type, where + ".type");
  }
  if (const boost::json::value* required = Member(object, "required")) {
    if (!required->is_bool()) {
      throw SchemaError(where + ".required", "must be true or false");
    }
    parameter.required = required->get_bool();
  }
  if (const boost::json::value* help = Member(object, "help")) {
    parameter.help = AsString(*help, where + ".help");
  }
  return parameter;
}

void CheckDistinctNames(const std::vector<ParameterDefinition>& parameters,
                        const std::string& where) {
  std::set<std::string> names;
  std::set<std::string> shortNames;
  for (const ParameterDefinition& parameter : parameters) {
    if (!names.insert(parameter.name).second) {
      throw SchemaError(where, "parameter \"" + parameter.name + "\" is defined twice");
    }
    if (!parameter.shortName.empty() && !shortNames.insert(parameter.shortName).second) {
      throw SchemaError(where, "short name \"" + parameter.shortName + "\" is used twice");
    }
  }
}

CommandDefinition ReadCommand(const boost::json::value& value, const std::string& where,
                              const std::string& file) {
  const boost::json::object& object = AsObject(value, where);
  CommandDefinition command;
  command.sourceFile = file;
  command.path = AsStringList(RequiredMember(object, "path", where), where + ".path");
  for (const std::string& word : command.path) {
    if (word.empty() || word[0] == '-') {
      throw SchemaError(where + ".path", "words must not be empty or begin with \"-\"");
    }
  }
  if (const boost::json::value* help = Member(object, "help")) {
    command.help = AsString(*help, where + ".help");
  }
  if (const boost::json::value* parameters = Member(object, "parameters")) {
    if (!parameters->is_array()) {
      throw SchemaError(where + ".parameters", "must be a list");
    }
    const boost::json::array& array = parameters->get_array();
    for (std::size_t index = 0; index < array.size(); ++index) {
      command.parameters.push_back(
          ReadParameter(array[index], where + ".parameters[" + std::to_string(index) + "]"));
    }
    CheckDistinctNames(command.parameters, where + ".parameters");
  }
  command.exec = AsStringList(RequiredMember(object, "exec", where), where + ".exec");
  return command;
}

}  // namespace

std::vector<CommandDefinition> ReadDefinitionFile(const std::string& file) {
  boost::json::value document = ParseJson(file, ReadRegularFile(file));
  std::vector<CommandDefinition> commands;
  try {
    const boost::json::object& root = AsObject(document, "the document");
    const boost::json::value& list = RequiredMember(root, "commands", "the document");
    if (!list.is_array()) {
      throw SchemaError("commands", "must be a list");
    }
    const boost::json::array& array = list.get_array();
    for (std::size_t index = 0; index < array.size(); ++index) {
      commands.push_back(
          ReadCommand(array[index], "commands[" + std::to_string(index) + "]", file));
    }
  } catch (const SchemaError& error) {
    throw std::runtime_error(file + ": " + error.what());
  }
  return commands;
}

}  // namespace CppTools::AutoCli::detail
