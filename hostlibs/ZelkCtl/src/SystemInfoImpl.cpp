#include "ZelkCtl/SystemInfoImpl.h"

#include <syslog.h>

#include "KernelLog.h"

namespace ZelkCtl::System {

void SystemInfoImpl::SetSystemAlert(const std::string& text) noexcept {
  syslog(LOG_ALERT, "%s", text.c_str());
  try {
    detail::WriteKernelLogRecord(detail::KernelLogPriority::Alert, text);
  } catch (const std::exception& error) {  // HostCtlException, or running out of memory
    syslog(LOG_ERR, "unable to raise system alert in the kernel log: %s", error.what());
  }
}

}  // namespace ZelkCtl::System
