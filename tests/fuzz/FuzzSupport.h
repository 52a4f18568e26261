/// What the fuzz targets share: an input handed over as a file that never
/// touches the disk, quiet logging, a stream that discards, a failed check,
/// and a dispatcher loaded with the fuzz command definitions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <streambuf>
#include <string>

namespace CppTools::AutoCli {
class Dispatcher;
}

namespace fuzzing {

/// A regular file held in memory (memfd_create), opened by the readers
/// through its "/proc/self/fd/N" path like any file of the host.
class MemoryFile {
 public:
  explicit MemoryFile(const char* name);
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// Makes @p size bytes at @p data the whole content of the file.
  void Replace(const std::uint8_t* data, std::size_t size);
  const std::string& Path() const { return path_; }

 private:
  int descriptor_;
  std::string path_;
};

/// Sends the log library's messages and standard output nowhere: standard
/// output becomes /dev/null and the only log output is a standard-output
/// channel for errors. Messages are still formatted as in a real run.
/// libFuzzer and the sanitizers keep reporting on standard error.
void SilenceLogging();

/// Ends the run as a finding, with @p what on standard error, when
/// @p holds is false.
void Check(bool holds, const char* what);

/// A stream buffer that takes every character and keeps none.
class DiscardingBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type character) override { return traits_type::not_eof(character); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

/// Loads the example host's CLI definitions and those of
/// tests/fuzz/definitions into @p dispatcher; a definition that does not
/// load ends the run, as the targets would then fuzz less than they say.
void LoadFuzzDefinitions(CppTools::AutoCli::Dispatcher& dispatcher);

}  // namespace fuzzing
