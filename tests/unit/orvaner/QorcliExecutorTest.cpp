// The parts of the executor handle that need no executor process; the
// protocol itself is tested end to end, on the sandboxed host's socket path.
#include <gtest/gtest.h>

#include <csignal>

#include "orvaner/QorcliExecutor.h"

namespace orvane {
namespace {

TEST(QorcliExecutorTest, InstanceIsOneObjectAndMakesTheProcessIgnoreSigpipe) {
  std::shared_ptr<QorcliExecutor> first = QorcliExecutor::Instance();
  std::shared_ptr<QorcliExecutor> second = QorcliExecutor::Instance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first.get(), second.get());

  struct sigaction current {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &current), 0);
  EXPECT_EQ(current.sa_handler, SIG_IGN);
}

}  // namespace
}  // namespace orvane
