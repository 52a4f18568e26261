#include "FuzzSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CppTools/AutoCli/Dispatcher.h"
#include "log/Dictionary.h"
#include "log/Log.h"

namespace fuzzing {
namespace {

/// A failure of the harness itself, not of the code under test.
[[noreturn]] void HarnessFailure(const char* what) {
  std::fprintf(stderr, "fuzz harness: %s: %s\n", what, std::strerror(errno));
  std::abort();
}

}  // namespace

MemoryFile::MemoryFile(const char* name) : descriptor_(::memfd_create(name, MFD_CLOEXEC)) {
  if (descriptor_ < 0) HarnessFailure("memfd_create");
  path_ = "/proc/self/fd/" + std::to_string(descriptor_);
}

MemoryFile::~MemoryFile() { ::close(descriptor_); }

void MemoryFile::Replace(const std::uint8_t* data, std::size_t size) {
  if (::ftruncate(descriptor_, 0) != 0) HarnessFailure("ftruncate");
  std::size_t written = 0;
  while (written < size) {
    const ssize_t count =
        ::pwrite(descriptor_, data + written, size - written, static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) HarnessFailure("pwrite");
    written += static_cast<std::size_t>(count);
  }
}

void SilenceLogging() {
  const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (devNull < 0 || ::dup2(devNull, STDOUT_FILENO) < 0) HarnessFailure("/dev/null");
  ::close(devNull);
  Log_Exit();
  // Without an output the library would write every message to standard
  // error; errors alone still reach a sink, the rest stop at the threshold.
  Dictionary* settings = Dictionary_Create();
  Dict_SetString(settings, "log.stdoutLevel", "error");
  if (!Log_AddOutput(Log_NewStdioOutput("orvane", settings))) {
    HarnessFailure("cannot add the log output");
  }
  Dictionary_Free(settings);
}

void Check(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

void LoadFuzzDefinitions(CppTools::AutoCli::Dispatcher& dispatcher) {
  for (const char* directory : {ORVANE_EXAMPLE_DEFINITIONS, ORVANE_FUZZ_DEFINITIONS}) {
    dispatcher.AddExternalDirectory(directory);
  }
  for (const std::string& problem : dispatcher.GetLoadErrors()) {
    std::fprintf(stderr, "fuzz harness: definition not loaded: %s\n", problem.c_str());
  }
  if (!dispatcher.GetLoadErrors().empty()) std::abort();
}

}  // namespace fuzzing
