#include "orvaner/afstream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

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

  std::ifstream previous(destination, std::ios_base::in | std::ios_base::binary);
  if (!previous.is_open()) {
    // A missing destination is an empty one; one that exists but cannot be
    // read would silently lose its contents, so that is a failure.
    if (errno != ENOENT) {
      const int savedErrno = errno;
      setstate(std::ios_base::failbit);
      throw SystemError("failed to write to temp file: ", savedErrno);
    }
    return;
  }
  // Copying from an empty buffer would mark this stream failed although
  // nothing went wrong.
  if (previous.rdbuf()->sgetc() != std::char_traits<char>::eof()) {
    *this << previous.rdbuf();
  }
  previous.close();
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

  struct stat destinationStatus {};
  std::string permissionError;
  if (::stat(destinationPath_.c_str(), &destinationStatus) != 0) {
    if (errno == ENOENT) {
      if (std::rename(temporaryPath_.c_str(), destinationPath_.c_str()) != 0) {
        throw SystemError(
            "unable to rename '" + temporaryPath_ + "' to '" + destinationPath_ + "': ", errno);
      }
      return;
    }
    permissionError = std::strerror(errno);
  }

  if (std::rename(temporaryPath_.c_str(), destinationPath_.c_str()) != 0) {
    throw SystemError("unable to rename '" + temporaryPath_ + "' to '" + destinationPath_ + "': ",
                      errno);
  }
  if (permissionError.empty() &&
      ::chmod(destinationPath_.c_str(), destinationStatus.st_mode) != 0) {
    permissionError = std::strerror(errno);
  }
  if (!permissionError.empty()) {
    throw std::runtime_error(
        "failed to restore file permissions, file permissions may be incorrect: " +
        permissionError);
  }
}

}  // namespace orvane
