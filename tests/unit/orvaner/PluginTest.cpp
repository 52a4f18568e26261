#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "GraphTestSupport.h"
#include "orvaner/Exception.h"
#include "orvaner/plugins/Plugin.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A plugin whose start and host-profile operations throw what a test sets.
class ThrowingPlugin : public RecordingPlugin {
 public:
  using RecordingPlugin::RecordingPlugin;
  std::function<void()> onStart = [] {};
  std::function<void()> onApplyHostProfile = [] {};

  void Start() override {
    RecordingPlugin::Start();
    onStart();
  }
  void ApplyHostProfile() override {
    RecordingPlugin::ApplyHostProfile();
    onApplyHostProfile();
  }
};

class PluginTest : public GraphTest {
 protected:
  // Runs InvokeMethod and returns its result and what it logged.
  std::pair<bool, std::string> Invoke(Plugin& plugin, const std::string& method) {
    ::testing::internal::CaptureStderr();
    const bool succeeded = plugin.InvokeMethod(method);
    return {succeeded, ::testing::internal::GetCapturedStderr()};
  }
};

TEST_F(PluginTest, FreshPluginHasTheInitialDeclarations) {
  RecordingPlugin plugin("fresh", runLog);
  EXPECT_EQ(plugin.GetApiVersion(), -1);
  EXPECT_FALSE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "");
  EXPECT_THAT(plugin.GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin.GetDisablingFlags(), IsEmpty());
  EXPECT_EQ(plugin.GetStartTime().tv_sec, 0);
  EXPECT_EQ(plugin.GetEndTime().tv_usec, 0);
  EXPECT_EQ(plugin.Name(), "fresh");
  EXPECT_EQ(plugin.SchedulingClass(), 1u);
  EXPECT_EQ(plugin.DotAttributes(), "");
}

TEST_F(PluginTest, InvokeStartLogsAndStarts) {
  RecordingPlugin plugin("net", runLog);
  auto [succeeded, logged] = Invoke(plugin, "start");
  EXPECT_TRUE(succeeded);
  EXPECT_THAT(logged, HasSubstr("executing start plugin: net\n"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("start net"));
}

TEST_F(PluginTest, InvokeApplyHostProfileLogsAndApplies) {
  RecordingPlugin plugin("net", runLog);
  auto [succeeded, logged] = Invoke(plugin, "apply_host_profile");
  EXPECT_TRUE(succeeded);
  EXPECT_THAT(logged, HasSubstr("executing host profile plugin: net\n"));
  EXPECT_THAT(runLog.Entries(), ElementsAre("profile net"));
}

TEST_F(PluginTest, InvokeOfAnyOtherNameSucceedsWithoutDoingOrLoggingAnything) {
  RecordingPlugin plugin("net", runLog);
  for (const char* method : {"stop", "Start", " start", "start ", ""}) {
    auto [succeeded, logged] = Invoke(plugin, method);
    EXPECT_TRUE(succeeded) << method;
    EXPECT_EQ(logged, "") << method;
  }
  EXPECT_THAT(runLog.Entries(), IsEmpty());
}

TEST_F(PluginTest, FailedMethodIsLoggedWithItsMessageAndReturnsFalse) {
  ThrowingPlugin plugin("net", runLog);
  plugin.onStart = [] { throw MethodFailedException("start", "net", "exit status 3"); };
  auto [succeeded, logged] = Invoke(plugin, "start");
  EXPECT_FALSE(succeeded);
  EXPECT_THAT(logged, HasSubstr("Method invocation failed: net->start() failed: exit status 3\n"));
}

// A debug injection has no host-profile operation: its kind throws
// NotImplementedException, which is not a failed method.
TEST_F(PluginTest, NotImplementedHostProfileIsReportedAsAnUnableToInvoke) {
  ThrowingPlugin plugin("inject", runLog);
  plugin.onApplyHostProfile = [] {
    throw NotImplementedException("DebugPlugin::ApplyHostProfile");
  };
  auto [succeeded, logged] = Invoke(plugin, "apply_host_profile");
  EXPECT_FALSE(succeeded);
  EXPECT_THAT(logged, HasSubstr("executing host profile plugin: inject\n"));
  EXPECT_THAT(
      logged,
      HasSubstr("unable to invoke method 'apply_host_profile' on plugin 'inject': " +
                std::string(NotImplementedException("DebugPlugin::ApplyHostProfile").what()) +
                "\n"));
  EXPECT_THAT(logged, ::testing::Not(HasSubstr("Method invocation failed")));
}

TEST_F(PluginTest, OtherStandardExceptionIsReportedWithMethodAndPlugin) {
  ThrowingPlugin plugin("net", runLog);
  plugin.onStart = [] { throw std::runtime_error("disk full"); };
  auto [succeeded, logged] = Invoke(plugin, "start");
  EXPECT_FALSE(succeeded);
  EXPECT_THAT(logged, HasSubstr("unable to invoke method 'start' on plugin 'net': disk full\n"));
}

TEST_F(PluginTest, UnknownThrownValueIsReportedWithoutDetails) {
  ThrowingPlugin plugin("net", runLog);
  plugin.onStart = [] { throw 42; };
  auto [succeeded, logged] = Invoke(plugin, "start");
  EXPECT_FALSE(succeeded);
  EXPECT_THAT(logged, HasSubstr("unknown exception whilst attempting to execute method 'start' on "
                                "plugin 'net'\n"));
}

TEST_F(PluginTest, ElapsedMicrosecondsAcrossASecondBoundary) {
  RecordingPlugin plugin("timed", runLog);
  plugin.startTime = {100, 900000};
  plugin.endTime = {102, 100000};
  EXPECT_EQ(plugin.GetElapsedMicroseconds(), 1200000);
}

TEST_F(PluginTest, ElapsedMicrosecondsDoesNotOverflowLargeSeconds) {
  RecordingPlugin plugin("timed", runLog);
  plugin.startTime = {0, 0};
  plugin.endTime = {4000000, 1};  // more than 2^32 microseconds
  EXPECT_EQ(plugin.GetElapsedMicroseconds(), 4000000000001LL);
}

}  // namespace
}  // namespace orvane::testing
