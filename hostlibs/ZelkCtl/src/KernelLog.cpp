#include "KernelLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
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

// The kernel log, opened by the first record that finds it and kept open
// for the life of the process (close-on-exec): a boot writes two records a
// plugin, and an open and a close for each cost twice the write. Until an
// open succeeds, every record tries again; -1 with errno when it fails.
int KernelLogDescriptor() {
  static std::atomic<int> kept{-1};
  const int descriptor = kept.load(std::memory_order_acquire);
  if (descriptor >= 0) {
    return descriptor;
  }
  const int opened = open(orvane::paths::kKernelLog, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY);
  if (opened < 0) {
    return -1;
  }
  int expected = -1;
  if (kept.compare_exchange_strong(expected, opened, std::memory_order_acq_rel)) {
    return opened;
  }
  close(opened);  // another thread's open won
  return expected;
}

}  // namespace

void WriteKernelLogRecord(KernelLogPriority priority, std::string_view message) {
  const std::string record = FormatRecord(priority, message);
  const int descriptor = KernelLogDescriptor();
  if (descriptor < 0) {
    ThrowSystemError("open", errno);
  }
  const ssize_t written = write(descriptor, record.data(), record.size());
  const int writeError = errno;
  if (written < 0) {
    ThrowSystemError("write", writeError);
  }
  if (static_cast<std::size_t>(written) != record.size()) {
    ThrowSystemError("write all of a record to", EIO);
  }
}

}  // namespace ZelkCtl::detail
