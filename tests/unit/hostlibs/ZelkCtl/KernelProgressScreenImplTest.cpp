#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "ZelkCtl/KernelProgressScreenImpl.h"

namespace {

using ZelkCtl::System::KernelProgressScreenImpl;

// Showing progress must never stop a boot, so no call may throw.
static_assert(noexcept(
    std::declval<KernelProgressScreenImpl&>().ProgressText(std::declval<const std::string&>())));
static_assert(noexcept(
    std::declval<KernelProgressScreenImpl&>().StatusText(std::declval<const std::string&>())));
static_assert(noexcept(std::declval<KernelProgressScreenImpl&>().AdvanceProgress()));

TEST(KernelProgressScreenImplTest, EveryCallReturnsWithoutAScreen) {
  KernelProgressScreenImpl screen;
  screen.ProgressText("Activating Orvane Plugins");
  screen.StatusText("");
  screen.StatusText(std::string(100000, 'x'));
  screen.AdvanceProgress();
  SUCCEED();
}

}  // namespace
