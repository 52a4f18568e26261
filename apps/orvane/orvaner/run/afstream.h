/// An output file stream that replaces its destination in one step.
#pragma once

#include <fstream>
#include <ios>
#include <string>

namespace orvane {

/// Writes to a temporary file beside the destination ("<destination>.XXXXXX"
/// made by mkstemp) and, on commit, renames it over the destination, keeping
/// the destination's former permission bits: a reader sees either the old
/// file or the complete new one, never a half-written one. Every failure is
/// thrown as std::runtime_error. Destroying the stream without commit closes
/// the temporary file and leaves it behind; the destination stays untouched.
class afstream : public std::basic_ofstream<char> {
 public:
  afstream() = default;
  afstream(const afstream&) = delete;
  afstream& operator=(const afstream&) = delete;

  /// Creates the temporary file for @p destination and opens the stream on
  /// it with @p mode plus output. On failure errno still holds the cause.
  void open(const std::string& destination, std::ios_base::openmode mode = std::ios_base::out);

  /// Like open, then copies the destination's present contents into the
  /// stream so that what follows is appended to them. A destination that
  /// does not exist counts as empty.
  void open_append(const std::string& destination,
                   std::ios_base::openmode mode = std::ios_base::out);

  /// Closes the stream and moves the temporary file over the destination.
  /// A destination that did not exist gets the temporary file's mode (0600).
  void commit();

  /// The temporary file the stream writes to; empty until open succeeds.
  const std::string& temporary_path() const { return temporaryPath_; }

 private:
  std::string temporaryPath_;
  std::string destinationPath_;
};

}  // namespace orvane
