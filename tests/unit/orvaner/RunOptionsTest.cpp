#include <gtest/gtest.h>

#include <ctime>

#include "orvaner/RunOptions.h"

namespace orvane {
namespace {

TEST(RunOptions, DefaultsAreThoseOfARunWithoutOptions) {
  std::time_t before = std::time(nullptr);
  RunOptions options;
  std::time_t after = std::time(nullptr);

  EXPECT_FALSE(options.verbose);
  EXPECT_FALSE(options.parallel);
  EXPECT_FALSE(options.randomize);
  EXPECT_FALSE(options.interactive);
  EXPECT_FALSE(options.trace);
  EXPECT_EQ(options.threadCount, 1u);
  EXPECT_GE(options.randomSeed, before);
  EXPECT_LE(options.randomSeed, after);
  EXPECT_TRUE(options.pluginDirectory.empty());
  EXPECT_TRUE(options.disabledPlugins.empty());
  EXPECT_TRUE(options.interactiveModeRequires.empty());
  EXPECT_TRUE(options.method.empty());
  EXPECT_FALSE(options.invoke);
  EXPECT_FALSE(options.daemonWait);
  EXPECT_EQ(options.daemonWaitTimeout, 40u);
  EXPECT_EQ(options.environment, nullptr);
}

TEST(RunOptions, InstanceIsOneRecordForTheWholeProcess) {
  RunOptions& first = RunOptions::Instance();
  RunOptions& second = RunOptions::Instance();
  EXPECT_EQ(&first, &second);
}

}  // namespace
}  // namespace orvane
