#include "KernelLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "HostCtl/HostCtlException.h"
#include "orvane/FixedPaths.h"

namespace ZelkCtl::detail {
namespace {

constexpr std::string_view kRecordTag = "orvane: ";

[[noreturn]] void ThrowSystemError(const char* action, int error) {
  throw HostCtl::Lib::HostCtlException(std::string("unable to ") + action + " " +
                                       orvane::paths::kKernelLog + ": " + std::strerror(error));
}

std::string FormatRecord(KernelLogPriority priority, std::string_view message) {
  // Appended piece by piece: g++ 12 at -O3 warns falsely (-Wrestrict) about
  // the operator+ chain that would say the same.
  std::string record(1, '<');
  record += std::to_string(static_cast<int>(priority));
  record += '>';
  record += kRecordTag;
  record += message;
  // The kernel ends every record itself; a copy of the log kept in a plain
  // file needs the line end to stay readable.
  if (record.back() != '\n') {
    record += '\n';
  }
  return record;
}

}  // namespace

void WriteKernelLogRecord(KernelLogPriority priority, std::string_view message) {
  const std::string record = FormatRecord(priority, message);
  int descriptor = open(orvane::paths::kKernelLog, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) {
    ThrowSystemError("open", errno);
  }
  ssize_t written = write(descriptor, record.data(), record.size());
  int writeError = errno;
  close(descriptor);
  if (written < 0) {
    ThrowSystemError("write", writeError);
  }
  if (static_cast<std::size_t>(written) != record.size()) {
    ThrowSystemError("write all of a record to", EIO);
  }
}

}  // namespace ZelkCtl::detail
