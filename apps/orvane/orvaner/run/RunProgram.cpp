#include "orvaner/run/RunProgram.h"

#include <cstring>

#include "log/Log.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

// In the child, whose standard streams are already the null device: the
// message goes to the log alone.
void ReportExecFailure(const char* program, int error) {
  Log_Level(LOG_LEVEL_ERROR, "execve(%s) failure: %s\n", program, std::strerror(error));
}

}  // namespace

bool RunProgram(char* const argv[], char* const environment[]) {
  process::Program program;
  program.arguments = argv;
  program.environment = environment;
  program.streams = process::StandardStreams::AllNull();
  program.childExecFailure = &ReportExecFailure;
  const process::RunResult result = process::Spawner::Instance().Run(program);
  return result.Started() && result.status.Succeeded();
}

}  // namespace orvane
