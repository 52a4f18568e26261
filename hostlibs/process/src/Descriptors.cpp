#include <linux/close_range.h>
#include <unistd.h>

#include "process/Wait.h"

namespace process {

// close_range does it in one call; the loop is for kernels without it,
// where the limit can be large.
void CloseInheritedDescriptors() {
  const long openMax = ::sysconf(_SC_OPEN_MAX);
  const int firstToClose = STDERR_FILENO + 1;
  if (openMax <= firstToClose) return;
  if (::close_range(firstToClose, static_cast<unsigned>(openMax - 1), 0) == 0) return;
  for (long descriptor = firstToClose; descriptor < openMax; ++descriptor) {
    ::close(static_cast<int>(descriptor));
  }
}

}  // namespace process
