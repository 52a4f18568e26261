// The run-once record's gzip data, read by ReadRunOnceRecord as an invoke
// run reads /bootbank/orvstate.gz.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/run/RunOnceRecord.h"

namespace {

bool IsBlank(char character) {
  return character == ' ' || character == '\t' || character == '\n' || character == '\v' ||
         character == '\f' || character == '\r';
}

// A key read from a record: trimmed, not empty, without the separator.
void CheckKey(const std::string& key) {
  fuzzing::Check(!key.empty(), "no empty key");
  fuzzing::Check(!IsBlank(key.front()) && !IsBlank(key.back()), "keys are trimmed");
  fuzzing::Check(key.find(',') == std::string::npos, "keys are split on commas");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::MemoryFile record("orvstate.gz");
  record.Replace(data, size);
  std::set<std::string> runOnce;
  try {
    orvane::ReadRunOnceRecord(runOnce, record.Path());
  } catch (const orvane::Exception&) {
    // Corrupt or truncated data: the run reports it and ends with status 1.
    return 0;
  }
  for (const std::string& key : runOnce) CheckKey(key);
  return 0;
}
