/// What the host kernel reports about its processors.
#pragma once

namespace ZelkCtl::System {

/// The number of processors the kernel runs on. On Linux, the online
/// processors; at least 1, since a running system has one even when the
/// count cannot be read.
int CpuCount() noexcept;

}  // namespace ZelkCtl::System
