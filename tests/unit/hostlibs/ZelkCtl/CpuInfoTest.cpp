#include <gtest/gtest.h>

#include <thread>

#include "ZelkCtl/CpuInfo.h"

namespace {

TEST(CpuInfoTest, CountsTheOnlineProcessors) {
  // The C++ library reads the online processors through another interface.
  const unsigned libraryCount = std::thread::hardware_concurrency();
  ASSERT_GT(libraryCount, 0u) << "the C++ library cannot tell on this machine";
  EXPECT_EQ(ZelkCtl::System::CpuCount(), static_cast<int>(libraryCount));
}

}  // namespace
