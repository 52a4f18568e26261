#include "ZelkCtl/CpuInfo.h"

#include <unistd.h>

namespace ZelkCtl::System {

int CpuCount() noexcept {
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online >= 1 ? static_cast<int>(online) : 1;
}

}  // namespace ZelkCtl::System
