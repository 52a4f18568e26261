// Panic: the message reaches standard error, then the process aborts.
#include <gtest/gtest.h>

#include <csignal>

#include "log/Panic.h"

namespace {

TEST(PanicDeathTest, WritesTheMessageAndAborts) {
  EXPECT_EXIT(Panic("VERIFY %s:%d\n", "somewhere", 12), ::testing::KilledBySignal(SIGABRT),
              "VERIFY somewhere:12");
}

}  // namespace
