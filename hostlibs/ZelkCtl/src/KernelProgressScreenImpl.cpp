#include "ZelkCtl/KernelProgressScreenImpl.h"

namespace ZelkCtl::System {

// No boot splash exists on a general Linux system; the calls are kept so that
// the boot steps read as they do on the host.
void KernelProgressScreenImpl::ProgressText(const std::string&) noexcept {}

void KernelProgressScreenImpl::StatusText(const std::string&) noexcept {}

void KernelProgressScreenImpl::AdvanceProgress() noexcept {}

}  // namespace ZelkCtl::System
