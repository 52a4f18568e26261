#include <fcntl.h>
#include <linux/close_range.h>
#include <unistd.h>

#include <cerrno>

#include "ChildStreams.h"
#include "process/Wait.h"

namespace process {

// close_range does it in one call; the loop is for kernels without it,
// where the limit can be large.
void CloseInheritedDescriptors() {
  const int firstToClose = STDERR_FILENO + 1;
  if (::close_range(firstToClose, ~0U, 0) == 0) return;
  const long openMax = ::sysconf(_SC_OPEN_MAX);
  for (long descriptor = firstToClose; descriptor < openMax; ++descriptor) {
    ::close(static_cast<int>(descriptor));
  }
}

namespace detail {

bool PlaceStream(const Stream& stream, int target) {
  switch (stream.kind) {
    case Stream::Kind::Inherited: return true;
    case Stream::Kind::Null: {
      const int opened = target == STDIN_FILENO ? ::open(kNullDevice, O_RDWR)
                                                : ::open(kNullDevice, O_WRONLY | O_CREAT | O_APPEND,
                                                         kCreatedOutputMode);
      if (opened < 0) return false;
      if (opened == target) return true;
      const bool placed = ::dup2(opened, target) == target;
      ::close(opened);
      return placed;
    }
    case Stream::Kind::Descriptor: {
      if (stream.descriptor != target) return ::dup2(stream.descriptor, target) == target;
      const int flags = ::fcntl(target, F_GETFD);
      return flags >= 0 && ::fcntl(target, F_SETFD, flags & ~FD_CLOEXEC) == 0;
    }
  }
  errno = EINVAL;
  return false;
}

}  // namespace detail
}  // namespace process
