// A debug configuration, read by ReadDebugEntries as the loader reads
// debug.conf.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "orvaner/plugins/DebugConfiguration.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::MemoryFile configuration("debug.conf");
  configuration.Replace(data, size);
  const auto entries = orvane::ReadDebugEntries(configuration.Path());
  fuzzing::Check(entries != nullptr, "the entries are never null");
  const std::size_t lines = static_cast<std::size_t>(std::count(data, data + size, '\n')) + 1;
  fuzzing::Check(entries->size() <= lines, "at most one entry per line");
  // The loader reads the file once per plugin file; an unchanged text gives
  // the very entries of the last read.
  fuzzing::Check(orvane::ReadDebugEntries(configuration.Path()) == entries,
                 "an unchanged configuration shares its entries");
  return 0;
}
