#include "hostfile/HostFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>

namespace hostfile {
namespace {

constexpr std::size_t kFirstBlock = 4096;

FileContent Failure(ReadStatus status, int error) {
  FileContent failure;
  failure.status = status;
  failure.error = error;
  return failure;
}

FileContent TooLarge(std::size_t maxSize) {
  FileContent failure = Failure(ReadStatus::TooLarge, 0);
  failure.limit = maxSize;
  return failure;
}

// Reads into @p text from its first @p length bytes on, growing it as
// needed, until the end or until more than @p maxSize bytes came.
FileContent ReadRest(int descriptor, std::size_t maxSize, std::string& text, std::size_t length) {
  for (;;) {
    if (length == text.size()) {
      if (length > maxSize) break;
      text.resize(std::min(std::max(text.size() * 2, kFirstBlock), maxSize + 1));
    }
    const ssize_t count = ::read(descriptor, text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failure(ReadStatus::ReadFailed, errno);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > maxSize) return TooLarge(maxSize);
  text.resize(length);
  FileContent content;
  content.text = std::move(text);
  return content;
}

FileStamp StampOf(const struct stat& status) {
  FileStamp stamp;
  stamp.device = status.st_dev;
  stamp.inode = status.st_ino;
  stamp.size = status.st_size;
  stamp.modified = status.st_mtim;
  stamp.changed = status.st_ctim;
  return stamp;
}

std::chrono::nanoseconds SinceEpoch(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Opens @p path as OpenRegularFile describes, and fills @p status.
int OpenRegular(const std::string& path, FileContent& failure, struct stat& status) {
  // O_NONBLOCK: opening a FIFO without a writer would otherwise wait for one.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    failure = Failure(ReadStatus::CannotOpen, errno);
    return -1;
  }
  if (::fstat(descriptor, &status) != 0) {
    failure = Failure(ReadStatus::CannotOpen, errno);
    ::close(descriptor);
    return -1;
  }
  if (!S_ISREG(status.st_mode)) {
    failure = Failure(ReadStatus::NotRegular, 0);
    failure.fileType = status.st_mode & S_IFMT;
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

// The content of the regular file open on @p descriptor, whose size was
// @p size when it was examined; the descriptor is closed.
FileContent ReadOpenFile(int descriptor, off_t size, std::size_t maxSize) {
  if (static_cast<std::uint64_t>(size) > maxSize) {
    ::close(descriptor);
    return TooLarge(maxSize);
  }
  // One byte more than the size, so that one read reaches the end of a file
  // that did not change, and a file that grew shows it at once.
  std::string text(static_cast<std::size_t>(size) + 1, '\0');
  FileContent content = ReadRest(descriptor, maxSize, text, 0);
  ::close(descriptor);
  return content;
}

}  // namespace

std::string FileTypeName(mode_t fileType) {
  switch (fileType & S_IFMT) {
    case S_IFDIR: return "a directory";
    case S_IFIFO: return "a FIFO";
    case S_IFSOCK: return "a socket";
    case S_IFCHR: return "a character device";
    case S_IFBLK: return "a block device";
    case S_IFLNK: return "a symbolic link";
    default: return "an unknown kind of file";
  }
}

std::string FileContent::Problem() const {
  switch (status) {
    case ReadStatus::Read: break;
    case ReadStatus::NotRegular: return "not a regular file (" + FileTypeName(fileType) + ")";
    case ReadStatus::TooLarge: return "larger than " + std::to_string(limit) + " bytes";
    case ReadStatus::CannotOpen: return std::string("cannot be opened: ") + std::strerror(error);
    case ReadStatus::ReadFailed: return std::string("cannot be read: ") + std::strerror(error);
  }
  return "";
}

bool FileStamp::operator==(const FileStamp& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         SinceEpoch(modified) == SinceEpoch(other.modified) &&
         SinceEpoch(changed) == SinceEpoch(other.changed);
}

bool FileStamp::ChangedBefore(timespec instant, std::chrono::nanoseconds margin) const {
  const std::chrono::nanoseconds latest = std::max(SinceEpoch(modified), SinceEpoch(changed));
  return latest + margin <= SinceEpoch(instant);
}

bool StampRegularFile(const std::string& path, FileStamp& stamp) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  stamp = StampOf(status);
  return true;
}

timespec RealTimeNow() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

int OpenRegularFile(const std::string& path, FileContent& failure, off_t* size) {
  struct stat status {};
  const int descriptor = OpenRegular(path, failure, status);
  if (descriptor >= 0 && size != nullptr) *size = status.st_size;
  return descriptor;
}

FileContent ReadHostFile(const std::string& path, std::size_t maxSize) {
  FileStamp unused;
  return ReadHostFile(path, maxSize, unused);
}

FileContent ReadHostFile(const std::string& path, std::size_t maxSize, FileStamp& stamp) {
  FileContent failure;
  struct stat status {};
  const int descriptor = OpenRegular(path, failure, status);
  if (descriptor < 0) return failure;
  stamp = StampOf(status);
  return ReadOpenFile(descriptor, status.st_size, maxSize);
}

FileContent ReadToEnd(int descriptor, std::size_t maxSize) {
  std::string text;
  return ReadRest(descriptor, maxSize, text, 0);
}

}  // namespace hostfile
