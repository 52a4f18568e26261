#include <gtest/gtest.h>

#include "HostCtl/HostCtlException.h"

namespace {

TEST(HostCtlException, CarriesItsMessage) {
  HostCtl::Lib::HostCtlException error("unable to open /dev/kmsg: No such file or directory");
  EXPECT_STREQ(error.what(), "unable to open /dev/kmsg: No such file or directory");
}

TEST(HostCtlException, IsAStandardException) {
  try {
    throw HostCtl::Lib::HostCtlException("broken node");
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "broken node");
    return;
  }
  FAIL() << "not caught as std::exception";
}

}  // namespace
