// orvane's own command line, read by ParseCommandLine and checked by
// CheckCombination as main does. The input is the arguments after
// argv[0] "orvane", separated by NUL bytes.
#include <getopt.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "orvaner/RunOptions.h"
#include "orvaner/run/CommandLine.h"
#include "orvaner/run/RunState.h"

namespace {

std::vector<std::string> Arguments(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> arguments{"orvane"};
  std::string argument;
  for (std::size_t index = 0; index < size; ++index) {
    if (data[index] == '\0') {
      arguments.push_back(std::move(argument));
      argument.clear();
    } else {
      argument += static_cast<char>(data[index]);
    }
  }
  if (size != 0) arguments.push_back(std::move(argument));
  return arguments;
}

// The comma lists give items that are neither empty nor hold a comma.
template <typename Items>
void CheckItems(const Items& items) {
  for (const std::string& item : items) {
    fuzzing::Check(!item.empty() && item.find(',') == std::string::npos,
                   "comma lists are split into non-empty items");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  // getopt_long's own messages about bad options go nowhere; what it
  // returns is the same either way.
  opterr = 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> arguments = Arguments(data, size);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  // Every input starts from a fresh process's state: getopt restarted, the
  // process-wide options at their defaults, a new state of main.
  optind = 0;
  orvane::RunOptions& options = orvane::RunOptions::Instance();
  options = orvane::RunOptions();
  orvane::RunState state;
  const orvane::ParseOutcome outcome =
      orvane::ParseCommandLine(static_cast<int>(arguments.size()), argv.data(), options, state);
  if (outcome == orvane::ParseOutcome::Run) {
    orvane::CheckCombination(options, state);
  }
  CheckItems(state.pluginList);
  CheckItems(state.pluginFlags);
  CheckItems(state.runOnce);
  CheckItems(options.disabledPlugins);
  CheckItems(options.interactiveModeRequires);
  return 0;
}
