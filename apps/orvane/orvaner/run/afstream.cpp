#include "orvaner/run/afstream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <vector>

#include "hostfile/HostFile.h"

namespace orvane {
namespace {

constexpr const char* kTemporarySuffix = ".XXXXXX";
// Room for the suffix and the terminating zero.
constexpr std::size_t kPatternExtra = 8;

// Builds the message of a failed system call while keeping errno for the
// caller, who may log strerror(errno) itself.
std::runtime_error SystemError(const std::string& prefix, int savedErrno) {
  std::runtime_error error(prefix + std::strerror(savedErrno));
  errno = savedErrno;
  return error;
}

// The mkstemp pattern for destination, in a buffer sized exactly for it.
std::vector<char> TemporaryPattern(const std::string& destination) {
  std::vector<char> pattern;
  try {
    pattern.assign(destination.size() + kPatternExtra, '\0');
  } catch (const std::bad_alloc&) {
    throw std::runtime_error("insufficient memory to allocate buffer");
  }
  const int written =
      std::snprintf(pattern.data(), pattern.size(), "%s%s", destination.c_str(), kTemporarySuffix);
  // A destination with an embedded zero byte comes out short.
  if (written < 0 || static_cast<std::size_t>(written) != pattern.size() - 1) {
    throw std::runtime_error("unable to allocate mkstemp pattern");
  }
  return pattern;
}

// Makes the file at @p path durable: its data and size reach the disk
// before anything names it. Returns 0 or the error.
int SyncFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) return errno;
  const int error = ::fsync(descriptor) == 0 ? 0 : errno;
  ::close(descriptor);
  return error;
}

// Makes a rename into the directory of @p path durable. A file system that
// cannot sync directories (EINVAL) has nothing more to offer and is not a
// failure. Returns 0 or the error.
int SyncParentDirectory(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  const std::string directory = parent.empty() ? "." : parent.string();
  const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = ::fsync(descriptor) == 0 || errno == EINVAL ? 0 : errno;
  ::close(descriptor);
  return error;
}

}  // namespace

void afstream::open(const std::string& destination, std::ios_base::openmode mode) {
  std::vector<char> pattern = TemporaryPattern(destination);
  const int descriptor = ::mkstemp(pattern.data());
  if (descriptor < 0) {
    throw SystemError("unable to create temporary file to write '" + destination + "': ", errno);
  }
  ::close(descriptor);
  temporaryPath_ = pattern.data();
  destinationPath_ = destination;

  if (rdbuf()->open(temporaryPath_, mode | std::ios_base::out) == nullptr) {
    const int savedErrno = errno;
    setstate(std::ios_base::failbit);
    throw SystemError("failed to create temp file: ", savedErrno);
  }
  clear();
}

void afstream::open_append(const std::string& destination, std::ios_base::openmode mode) {
  open(destination, mode);

  // Through the host-file reader: a FIFO in the destination's place would
  // hold a plain open for ever.
  hostfile::FileContent failure;
  const int previous = hostfile::OpenRegularFile(destination, failure);
  if (previous < 0) {
    // A missing destination is an empty one; one that exists but cannot be
    // read would silently lose its contents, so that is a failure.
    if (failure.status == hostfile::ReadStatus::CannotOpen && failure.error == ENOENT) {
      return;
    }
    setstate(std::ios_base::failbit);
    const int savedErrno = failure.status == hostfile::ReadStatus::NotRegular
                               ? (failure.fileType == S_IFDIR ? EISDIR : EINVAL)
                               : failure.error;
    throw SystemError("failed to write to temp file: ", savedErrno);
  }
  char block[65536];
  for (;;) {
    const ssize_t count = ::read(previous, block, sizeof block);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      const int savedErrno = errno;
      ::close(previous);
      setstate(std::ios_base::failbit);
      throw SystemError("failed to write to temp file: ", savedErrno);
    }
    if (count == 0) break;
    write(block, count);
  }
  ::close(previous);
  if (fail()) {
    throw SystemError("failed to write to temp file: ", errno);
  }
}

void afstream::commit() {
  if (destinationPath_.empty()) {
    throw std::runtime_error("commit invoked on an unknown destination");
  }
  // A stream that lost output, or whose last flush fails, must not replace
  // the destination with a short file.
  const bool lostOutput = bad();
  if (rdbuf()->close() == nullptr || lostOutput) {
    setstate(std::ios_base::failbit);
    throw SystemError("failed to write to temp file: ", errno);
  }
  // Surviving a power cut, not only a kill: the new contents are on disk
  // before the rename makes them the destination, and the rename is on disk
  // before commit returns.
  if (const int error = SyncFile(temporaryPath_); error != 0) {
    setstate(std::ios_base::failbit);
    throw SystemError("failed to write to temp file: ", error);
  }

  struct stat destinationStatus {};
  std::string permissionError;
  const bool destinationExisted = ::stat(destinationPath_.c_str(), &destinationStatus) == 0;
  if (!destinationExisted && errno != ENOENT) {
    permissionError = std::strerror(errno);
  }
  if (std::rename(temporaryPath_.c_str(), destinationPath_.c_str()) != 0) {
    throw SystemError("unable to rename '" + temporaryPath_ + "' to '" + destinationPath_ + "': ",
                      errno);
  }
  // A new destination keeps the temporary file's mode.
  if (destinationExisted && ::chmod(destinationPath_.c_str(), destinationStatus.st_mode) != 0) {
    permissionError = std::strerror(errno);
  }
  const int syncError = SyncParentDirectory(destinationPath_);
  if (!permissionError.empty()) {
    throw std::runtime_error(
        "failed to restore file permissions, file permissions may be incorrect: " +
        permissionError);
  }
  if (syncError != 0) {
    throw SystemError("unable to sync the directory of '" + destinationPath_ + "': ", syncError);
  }
}

}  // namespace orvane
