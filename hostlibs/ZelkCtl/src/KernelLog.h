// Records in the kernel log, shared by the system-log node and the system alert.
#pragma once

#include <string_view>

namespace ZelkCtl::detail {

/// Kernel log priorities (the "<N>" prefix of a record).
enum class KernelLogPriority : int { Alert = 1, Info = 6 };

/// Writes one record "<N>orvane: message" to the kernel log in one write.
/// Throws HostCtl::Lib::HostCtlException, naming the device and the system
/// error, when the device cannot be opened or takes less than the record.
void WriteKernelLogRecord(KernelLogPriority priority, std::string_view message);

}  // namespace ZelkCtl::detail
