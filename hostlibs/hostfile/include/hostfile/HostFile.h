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

#include <cstddef>
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

/// Everything @p descriptor delivers until its end, at most @p maxSize
/// bytes: for pipes, whose size is not known beforehand. Reads are retried
/// when interrupted; the descriptor is left open.
FileContent ReadToEnd(int descriptor, std::size_t maxSize);

}  // namespace hostfile
