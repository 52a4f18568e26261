#include "CppTools/AutoCli/OptionParser.h"

#include <iostream>
#include <ostream>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/Dispatcher.h"

namespace CppTools::AutoCli {
namespace {

bool IsBlank(char character) { return character == ' ' || character == '\t' || character == '\n'; }

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

bool IsHelpRequest(const std::string& word) { return word == "--help" || word == "-h"; }

// Inside double quotes a backslash escapes only these (and a newline).
bool IsEscapableInDoubleQuotes(char character) {
  return character == '$' || character == '`' || character == '"' || character == '\\' ||
         character == '\n';
}

}  // namespace

// "-" alone and "-<digit>..." are values (a negative number), not options.
bool OptionParser::IsOption(const std::string& word) {
  return word.size() >= 2 && word[0] == '-' && !IsDigit(word[1]);
}

OptionParser::OptionParser(const Dispatcher* helpSource, std::ostream* helpStream)
    : helpSource_(helpSource), helpStream_(helpStream != nullptr ? helpStream : &std::cout) {}

bool OptionParser::ParseString(const std::string& line) {
  Reset();
  std::vector<std::string> words;
  if (!SplitWords(line, words)) {
    return false;
  }
  return ParseWords(words);
}

bool OptionParser::ParseWords(const std::vector<std::string>& words) {
  Reset();
  std::size_t index = 0;
  while (index < words.size() && (words[index].empty() || words[index][0] != '-')) {
    commandPath_.push_back(words[index]);
    ++index;
  }
  // Help wins over every other problem of the line: the operator asked
  // what the command takes.
  for (const std::string& word : words) {
    if (IsHelpRequest(word)) {
      WriteHelp();
      return true;
    }
  }
  if (commandPath_.empty()) {
    parseErrors_.emplace_back("no command given: the line must begin with the command's path");
  }
  for (const std::string& word : commandPath_) {
    if (word.empty()) {
      parseErrors_.emplace_back("the command path contains an empty word");
      break;
    }
  }
  ParseParameters(words, index);
  return false;
}

const std::vector<std::string>& OptionParser::GetParseErrors() const { return parseErrors_; }

const std::vector<std::string>& OptionParser::GetCommandPath() const { return commandPath_; }

const std::vector<std::pair<std::string, std::string>>& OptionParser::GetCommandParameters() const {
  return parameters_;
}

std::shared_ptr<CommandInput> OptionParser::MakeCommandInput(
    const std::string& dispatcherName) const {
  auto input = CommandInput::New();
  input->SetDispatcher(dispatcherName);
  input->SetCommandPath(commandPath_);
  for (const auto& [name, value] : parameters_) {
    input->AddParameter(name, value);
  }
  return input;
}

void OptionParser::Reset() {
  parseErrors_.clear();
  commandPath_.clear();
  parameters_.clear();
}

bool OptionParser::SplitWords(const std::string& line, std::vector<std::string>& words) {
  if (line.find('\0') != std::string::npos) {
    // No program argument or environment value can carry one.
    parseErrors_.emplace_back("the command line contains a NUL byte");
    return false;
  }
  enum class Quote { None, Single, Double };
  Quote quote = Quote::None;
  std::string word;
  bool inWord = false;  // a word has begun, even if it is still empty ("")
  for (std::size_t index = 0; index < line.size(); ++index) {
    char character = line[index];
    bool hasNext = index + 1 < line.size();
    switch (quote) {
      case Quote::Single:
        if (character == '\'') {
          quote = Quote::None;
        } else {
          word += character;
        }
        break;
      case Quote::Double:
        if (character == '"') {
          quote = Quote::None;
        } else if (character == '\\' && hasNext && IsEscapableInDoubleQuotes(line[index + 1])) {
          ++index;
          if (line[index] != '\n') {
            word += line[index];
          }
        } else {
          word += character;
        }
        break;
      case Quote::None:
        if (IsBlank(character)) {
          if (inWord) {
            words.push_back(std::move(word));
            word.clear();
            inWord = false;
          }
        } else if (character == '\'') {
          quote = Quote::Single;
          inWord = true;
        } else if (character == '"') {
          quote = Quote::Double;
          inWord = true;
        } else if (character == '\\' && hasNext) {
          ++index;
          if (line[index] != '\n') {
            word += line[index];
            inWord = true;
          }
        } else {
          word += character;
          inWord = true;
        }
        break;
    }
  }
  if (quote != Quote::None) {
    parseErrors_.emplace_back(quote == Quote::Single ? "unterminated single quote"
                                                     : "unterminated double quote");
    return false;
  }
  if (inWord) {
    words.push_back(std::move(word));
  }
  return true;
}

void OptionParser::ParseParameters(const std::vector<std::string>& words, std::size_t first) {
  std::size_t index = first;
  while (index < words.size()) {
    const std::string& word = words[index];
    ++index;
    if (!IsOption(word)) {
      parseErrors_.push_back("unexpected word '" + word + "' where a parameter was expected");
      continue;
    }
    std::string name;
    std::string value;
    bool hasValue = false;
    if (word[1] == '-') {
      std::string body = word.substr(2);
      std::size_t equals = body.find('=');
      if (equals != std::string::npos) {
        name = body.substr(0, equals);
        value = body.substr(equals + 1);
        hasValue = true;
      } else {
        name = body;
      }
      if (name.empty()) {
        parseErrors_.push_back("option '" + word + "' has no name");
        continue;
      }
      if (name[0] == '-') {
        // "---x" would pass on as "-x", the short name x.
        parseErrors_.push_back("option '" + word + "' has a name beginning with \"-\"");
        continue;
      }
    } else {
      name = word;  // a short name keeps its "-"
    }
    if (!hasValue) {
      if (index < words.size() && !IsOption(words[index])) {
        value = words[index];
        ++index;
      } else {
        value = "true";
      }
    }
    parameters_.emplace_back(std::move(name), std::move(value));
  }
}

void OptionParser::WriteHelp() const {
  if (helpSource_ == nullptr) {
    *helpStream_ << "no command definitions are available\n";
  } else {
    helpSource_->WriteHelp(commandPath_, *helpStream_);
  }
  helpStream_->flush();
}

}  // namespace CppTools::AutoCli
