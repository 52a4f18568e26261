#include "analyze/CommandLine.h"

#include <cmath>
#include <cstdlib>
#include <optional>

#include "orvane/FixedPaths.h"

namespace orvane::analyze {

const char* const kUsage =
    "usage: orvane-analyze [-r FILE] [--json] blame\n"
    "       orvane-analyze [-r FILE] [--json] critical-chain [PLUGIN]\n"
    "       orvane-analyze [-r FILE] [--json] plot > boot.svg\n"
    "       orvane-analyze [-r FILE] trace > trace.json\n"
    "       orvane-analyze [-r FILE] [--json] status\n"
    "       orvane-analyze [--json] [--threshold MS] compare OLD NEW\n"
    "       orvane-analyze [--json] aggregate RECORD...\n"
    "       orvane-analyze [--json] verify [--root DIR]\n";

namespace {

/// The most milliseconds --threshold takes: a day.
constexpr double kMostThresholdMilliseconds = 86'400'000;

/// What a command takes besides --json.
struct CommandRule {
  const char* name;
  std::size_t fewestOperands;
  std::size_t mostOperands;
  bool readsRecord;  ///< takes -r
};

constexpr std::size_t kAny = static_cast<std::size_t>(-1);

constexpr CommandRule kCommands[] = {
    {"blame", 0, 0, true},         {"critical-chain", 0, 1, true}, {"plot", 0, 0, true},
    {"trace", 0, 0, true},         {"status", 0, 0, true},         {"compare", 2, 2, false},
    {"aggregate", 1, kAny, false}, {"verify", 0, 0, false},
};

const CommandRule* FindCommand(const std::string& name) {
  for (const CommandRule& rule : kCommands) {
    if (name == rule.name) {
      return &rule;
    }
  }
  return nullptr;
}

/// A plain decimal number: digits, at most one point, at least one digit.
bool IsDecimal(const std::string& text) {
  bool digit = false;
  bool point = false;
  for (const char character : text) {
    if (character >= '0' && character <= '9') {
      digit = true;
    } else if (character == '.' && !point) {
      point = true;
    } else {
      return false;
    }
  }
  return digit;
}

std::int64_t ParseThreshold(const std::string& text) {
  const double milliseconds = IsDecimal(text) ? std::strtod(text.c_str(), nullptr) : -1;
  if (milliseconds < 0 || milliseconds > kMostThresholdMilliseconds) {
    throw UsageError("--threshold takes milliseconds, a number from 0 to 86400000: \"" + text +
                     "\"");
  }
  return std::llround(milliseconds * 1000);
}

/// Reads options one word at a time; the words that are no option are the
/// command and its operands.
class Parser {
 public:
  explicit Parser(const std::vector<std::string>& arguments) : arguments_(arguments) {}

  CommandLine Parse() {
    std::vector<std::string> words;
    bool optionsEnded = false;
    for (position_ = 0; position_ < arguments_.size(); ++position_) {
      const std::string& argument = arguments_[position_];
      if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
        words.push_back(argument);
      } else if (argument == "--") {
        optionsEnded = true;
      } else {
        ReadOption(argument);
      }
    }
    if (line_.help) {
      return line_;
    }
    if (words.empty()) {
      throw UsageError("no command given");
    }
    line_.command = words.front();
    line_.operands.assign(words.begin() + 1, words.end());
    Check();
    if (line_.record.empty()) {
      line_.record = DefaultRecord();
    }
    return line_;
  }

 private:
  void ReadOption(const std::string& argument) {
    if (argument == "-h" || argument == "--help") {
      line_.help = true;
    } else if (argument == "--json") {
      line_.json = true;
    } else if (std::optional<std::string> record = Value(argument, "-r", "--record")) {
      if (record->empty()) {
        throw UsageError("-r needs a record file");
      }
      line_.record = *record;
    } else if (std::optional<std::string> threshold = Value(argument, "", "--threshold")) {
      line_.thresholdMicroseconds = ParseThreshold(*threshold);
      thresholdGiven_ = true;
    } else if (std::optional<std::string> root = Value(argument, "", "--root")) {
      if (root->empty()) {
        throw UsageError("--root needs a directory");
      }
      line_.root = *root;
      rootGiven_ = true;
    } else {
      throw UsageError("unknown option \"" + argument + "\"");
    }
  }

  /// The value of the option @p argument when it is @p shortName or
  /// @p longName: joined ("-rFILE", "--record=FILE") or the next word.
  std::optional<std::string> Value(const std::string& argument, const std::string& shortName,
                                   const std::string& longName) {
    if (argument == longName || (!shortName.empty() && argument == shortName)) {
      if (position_ + 1 >= arguments_.size()) {
        throw UsageError(argument + " needs a value");
      }
      return arguments_[++position_];
    }
    if (argument.rfind(longName + "=", 0) == 0) {
      return argument.substr(longName.size() + 1);
    }
    if (!shortName.empty() && argument.rfind(shortName, 0) == 0 && argument.size() > 2 &&
        argument[1] != '-') {
      return argument.substr(shortName.size());
    }
    return std::nullopt;
  }

  void Check() const {
    const CommandRule* rule = FindCommand(line_.command);
    if (rule == nullptr) {
      throw UsageError("unknown command \"" + line_.command + "\"");
    }
    const std::size_t operands = line_.operands.size();
    if (operands < rule->fewestOperands) {
      throw UsageError(line_.command + ": too few arguments");
    }
    if (rule->mostOperands != kAny && operands > rule->mostOperands) {
      throw UsageError(line_.command + ": too many arguments");
    }
    if (!rule->readsRecord && !line_.record.empty()) {
      throw UsageError("-r does not apply to " + line_.command);
    }
    if (thresholdGiven_ && line_.command != "compare") {
      throw UsageError("--threshold applies only to compare");
    }
    if (rootGiven_ && line_.command != "verify") {
      throw UsageError("--root applies only to verify");
    }
  }

  const std::vector<std::string>& arguments_;
  std::size_t position_ = 0;
  CommandLine line_;
  bool thresholdGiven_ = false;
  bool rootGiven_ = false;
};

}  // namespace

std::string DefaultRecord() { return std::string(paths::kRunRecordDirectory) + "/last.jsonl"; }

CommandLine ParseCommandLine(const std::vector<std::string>& arguments) {
  return Parser(arguments).Parse();
}

}  // namespace orvane::analyze
