/// One safe way to read a file of the host.
///
/// A plugin directory or a configuration path may hold anything: a FIFO
/// without a writer, whose open or read would block for ever; a device
/// that never ends; a runaway file of gigabytes. Every reader of a host
/// file opens it without blocking, takes only regular files, and reads no
/// more than its own bound, so that no such file can hold up or exhaust
/// the boot.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <string>

namespace hostfile {

/// How a read ended.
enum class ReadStatus {
  Read,        ///< the whole content is in the result
  CannotOpen,  ///< the open failed (missing, no permission, a link loop...)
  NotRegular,  ///< a directory, FIFO, socket or device: not opened further
  TooLarge,    ///< more bytes than the caller's bound; nothing kept
  ReadFailed,  ///< a read failed part way; nothing kept
};

/// The outcome of reading a file, with what was read when it succeeded.
struct FileContent {
  ReadStatus status = ReadStatus::Read;
  int error = 0;          ///< errno of a failed open or read
  mode_t fileType = 0;    ///< the S_IFMT bits of a file that is not regular
  std::size_t limit = 0;  ///< the bound that a file too large exceeded
  std::string text;       ///< the content, when status is Read

  bool Ok() const { return status == ReadStatus::Read; }
  /// Why the file was not read, in a few words: "cannot be opened: No such
  /// file or directory", "not a regular file (a FIFO)", "larger than
  /// 16777216 bytes", "cannot be read: Input/output error"; empty when it was.
  std::string Problem() const;
};

/// What tells one state of a regular file from another without reading it:
/// which file it is (device and inode), its size, and the times of its last
/// modification and of its last change (nanoseconds included). Any write,
/// truncation, change of mode or owner, and setting of the times moves the
/// change time to the clock's present; only setting the clock itself can
/// take it back.
struct FileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{};

  bool operator==(const FileStamp& other) const;

  /// Whether the file's last modification and last change both lie at
  /// least @p margin before @p instant (a time of the real-time clock).
  bool ChangedBefore(timespec instant, std::chrono::nanoseconds margin) const;
};

/// The stamp of the regular file @p path (symbolic links followed); false
/// when it cannot be examined or is not a regular file. One stat call.
bool StampRegularFile(const std::string& path, FileStamp& stamp);

/// The real-time clock, the one the file systems stamp files with.
timespec RealTimeNow();

/// "a directory", "a FIFO", "a socket", "a character device", "a block
/// device", "a symbolic link" or "an unknown kind of file" for the S_IFMT
/// bits @p fileType.
std::string FileTypeName(mode_t fileType);

/// Opens @p path for reading, close-on-exec, without blocking and without
/// making a terminal the controlling one, then checks that it is a regular
/// file (symbolic links are followed). Returns the descriptor, or -1 with
/// @p failure filled (CannotOpen or NotRegular). When @p size is not null it
/// receives the file's size.
int OpenRegularFile(const std::string& path, FileContent& failure, off_t* size = nullptr);

/// The whole content of the regular file @p path, if it has at most
/// @p maxSize bytes. A file that is larger is refused from its size alone,
/// without being read, and so is one that grows past the bound while it is
/// read.
FileContent ReadHostFile(const std::string& path, std::size_t maxSize);

/// ReadHostFile that also fills @p stamp with the stamp of the file it
/// read, taken from the open descriptor before the content is read (left
/// as it was when the file could not be opened).
FileContent ReadHostFile(const std::string& path, std::size_t maxSize, FileStamp& stamp);

/// Everything @p descriptor delivers until its end, at most @p maxSize
/// bytes: for pipes, whose size is not known beforehand. Reads are retried
/// when interrupted; the descriptor is left open.
FileContent ReadToEnd(int descriptor, std::size_t maxSize);

}  // namespace hostfile
