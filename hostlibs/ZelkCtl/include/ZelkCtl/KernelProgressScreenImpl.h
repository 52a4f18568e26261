/// The kernel's boot progress screen.
#pragma once

#include <string>

namespace ZelkCtl::System {

/// The screen the host shows while it boots: a progress text (what is being
/// done), a status text under it and a progress bar. A general Linux system
/// has no such screen, so on Linux every call does nothing; none of them can
/// fail, because progress display must never stop a boot.
class KernelProgressScreenImpl {
 public:
  KernelProgressScreenImpl() = default;
  KernelProgressScreenImpl(const KernelProgressScreenImpl&) = delete;
  KernelProgressScreenImpl& operator=(const KernelProgressScreenImpl&) = delete;

  /// Shows @p text as what the boot is doing now.
  void ProgressText(const std::string& text) noexcept;
  /// Shows @p text under the progress text; empty clears it.
  void StatusText(const std::string& text) noexcept;
  /// Moves the progress bar on by one step.
  void AdvanceProgress() noexcept;
};

}  // namespace ZelkCtl::System
