// A native plugin's file, checked by UnfitReason as the loader checks it
// before handing it to the dynamic loader.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "orvaner/plugins/SharedObjectCheck.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::MemoryFile object("plugin.so");
  object.Replace(data, size);
  const std::string reason = orvane::UnfitReason(object.Path());
  // A regular file is refused only for a segment that it cuts off, and the
  // reason names the file and its size.
  if (!reason.empty()) {
    fuzzing::Check(reason.starts_with(object.Path() + ": file truncated: a loadable segment ends "
                                                      "at byte "),
                   "the reason names the file and says it is cut off");
    fuzzing::Check(reason.ends_with(" of a file of " + std::to_string(size) + " bytes"),
                   "the reason gives the file's size");
  }
  return 0;
}
