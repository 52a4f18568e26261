/// The host's system-information service.
#pragma once

#include <string>

namespace ZelkCtl::System {

/// Raises host-wide alerts that an operator sees without asking for them.
class SystemInfoImpl {
 public:
  SystemInfoImpl() = default;
  SystemInfoImpl(const SystemInfoImpl&) = delete;
  SystemInfoImpl& operator=(const SystemInfoImpl&) = delete;

  /// Raises @p text as a system alert: syslog at alert priority and a
  /// kernel-log record at alert priority. Never throws: an alert about a
  /// broken plugin must not become a failure of its own; a kernel log that
  /// cannot be written is reported to syslog instead.
  void SetSystemAlert(const std::string& text) noexcept;
};

}  // namespace ZelkCtl::System
