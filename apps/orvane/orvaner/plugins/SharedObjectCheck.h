// What a native plugin's file is checked for before the loader maps it.
#pragma once

#include <string>

namespace orvane {

/// Why the object at @p libraryPath must not be handed to the loader, or ""
/// when the loader may have it. Only a regular file may be opened: opening
/// a FIFO would wait for a writer for ever. A loadable segment that reaches
/// past the end of a cut-off file would raise SIGBUS in this process when
/// the loader touches its missing pages. Anything else that is wrong with
/// the file, including a file that cannot be opened, is left to the loader,
/// whose reason names the cause.
std::string UnfitReason(const std::string& libraryPath);

}  // namespace orvane
