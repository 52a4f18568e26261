// One request received by the executor process, answered by
// QorcliExecutor::AnswerRequest as the executor answers it, with a
// dispatcher whose programs never start.
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "CppTools/AutoCli/Dispatcher.h"
#include "CppTools/AutoCli/OptionParser.h"
#include "FuzzSupport.h"
#include "orvaner/cli/QorcliExecutor.h"

namespace {

// The executor reads a request with one receive of at most this many bytes.
constexpr std::size_t kMaxMessageLength = 1023;

/// Runs no program: answers for each by its name, so that every way a
/// command ends is reached (the fuzz definitions name these programs).
class NoProgramDispatcher : public CppTools::AutoCli::Dispatcher {
 public:
  int runs = 0;
  bool lastRunSucceeded = false;

 protected:
  CppTools::AutoCli::ProgramResult RunCommandProgram(
      const std::vector<std::string>& arguments,
      const std::vector<std::pair<std::string, std::string>>&,
      const std::vector<std::string>&) override {
    fuzzing::Check(!arguments.empty(), "a program is only started when there is one");
    ++runs;
    CppTools::AutoCli::ProgramResult result;
    const std::string& program = arguments[0];
    if (program.ends_with("/false")) {
      result.exitStatus = 1;
    } else if (program.ends_with("/missing")) {
      result.startError = "No such file or directory";
    } else if (program.ends_with("/killed")) {
      result.signal = 15;
    }
    lastRunSucceeded = result.startError.empty() && result.exitStatus == 0 && result.signal == 0;
    return result;
  }
};

NoProgramDispatcher* dispatcher = nullptr;

// Whether the command line asked for help, which is answered without a program.
bool AsksForHelp(const char* message) {
  static std::ostream discarded(new fuzzing::DiscardingBuffer);
  return CppTools::AutoCli::OptionParser(nullptr, &discarded).ParseString(message);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Help that a command line asks for goes to standard output, which this
  // makes /dev/null.
  fuzzing::SilenceLogging();
  dispatcher = new NoProgramDispatcher;
  fuzzing::LoadFuzzDefinitions(*dispatcher);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  char message[kMaxMessageLength + 1];
  const std::size_t length = std::min(size, kMaxMessageLength);
  std::memcpy(message, data, length);
  message[length] = '\0';
  dispatcher->runs = 0;

  const std::optional<std::int32_t> status =
      orvane::QorcliExecutor::AnswerRequest(message, *dispatcher);
  const bool stopRequest = ::strncasecmp(message, "stop", 4) == 0;
  fuzzing::Check(status.has_value() != stopRequest, "only a stop request gets no status");
  if (!status) return 0;
  fuzzing::Check(*status == 0 || *status == 1, "the status is 0 or 1");
  fuzzing::Check(dispatcher->runs <= 1, "a request runs at most one program");
  if (dispatcher->runs == 1) {
    fuzzing::Check(*status == (dispatcher->lastRunSucceeded ? 0 : 1),
                   "the status is the program's outcome");
  } else if (*status == 0) {
    fuzzing::Check(AsksForHelp(message), "success without a program only for help");
  }
  return 0;
}
