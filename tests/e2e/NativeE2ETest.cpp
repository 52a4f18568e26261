// Native plugins in runs of the installed orvane on the sandboxed host: the
// shared objects in the plugin directory, their methods in the installed
// helper program, their failures, and the helper on its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

/// The first @p size bytes of a real plugin object.
std::string ShortenedPlugin(std::size_t size) {
  std::ifstream stream(ORVANE_TEST_PLUGIN_NATIVE_FIRST, std::ios::binary);
  std::string content(size, '\0');
  stream.read(content.data(), static_cast<std::streamsize>(size));
  return content;
}

class NativeE2E : public OrvaneRunTest {
 protected:
  /// Puts a built plugin object into the plugin directory as @p fileName.
  void AddPlugin(const std::string& builtObject, const std::string& fileName) {
    sandbox_->CopyIn(builtObject, PluginFile(fileName), 0644);
  }

  RunResult Helper(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kNativeExecutor);
    RunResult result = sandbox_->Run(arguments);
    EXPECT_FALSE(result.timedOut);
    return result;
  }

  /// Expects a load failure reported as the run goes on: raised as a system
  /// alert, logged as a warning.
  void ExpectLoadFailure(const std::string& text) {
    EXPECT_THAT(KernelLog(), Contains("<1>orvane: " + text));
    EXPECT_THAT(messages_, Contains(text));
    EXPECT_TRUE(SyslogHas(LOG_WARNING, text)) << text;
  }
};

// ---- runs

TEST_F(NativeE2E, NativePluginsAndInjectionsRunInDependencyOrder) {
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_SECOND, "native_second.so");
  sandbox_->WriteFile(kDebugConfiguration,
                      "middle:native.one:native.two:echo middle >> /tmp/record\n");
  RunResult result = Orvane({"--plugin=native_second.so,middle.debug,libnative_first.so"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("native_first start", "middle", "native_second start"));
  EXPECT_THAT(
      Activations(),
      ElementsAre("Activating Orvane plugin native_first.", "Orvane plugin native_first activated.",
                  "Activating Orvane plugin middle.", "Orvane plugin middle activated.",
                  "Activating Orvane plugin native_second.",
                  "Orvane plugin native_second activated."));
  EXPECT_THAT(messages_, Contains("executing start plugin: native_first"));
}

TEST_F(NativeE2E, CrashingAndExitingPluginsAreReportedAndTheBootGoesOn) {
  AddPlugin(ORVANE_TEST_PLUGIN_CRASH, "libcrash.so");
  AddPlugin(ORVANE_TEST_PLUGIN_EXIT3, "libexit3.so");
  sandbox_->WriteFile(kDebugConfiguration,
                      "after:crash.done,exit3.done::echo after >> /tmp/record\n");
  RunResult result = Orvane({"--plugin=libcrash.so,libexit3.so,after.debug"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("after"));
  EXPECT_THAT(Activations(),
              ElementsAre("Activating Orvane plugin crash.",
                          "Orvane plugin crash activation failed: crash->start() failed: exited "
                          "with signal: 11",
                          "Activating Orvane plugin exit3.",
                          "Orvane plugin exit3 activation failed: exit3->start() failed: exited "
                          "with code 3",
                          "Activating Orvane plugin after.", "Orvane plugin after activated."));
  EXPECT_THAT(messages_,
              Contains("Method invocation failed: crash->start() failed: exited with signal: 11"));
  EXPECT_TRUE(
      SyslogHas(LOG_ERR, "Method invocation failed: exit3->start() failed: exited with code 3"));
}

TEST_F(NativeE2E, ParallelSleepingPluginDoesNotHoldBackIndependentPlugins) {
  // The sleeper waits for /tmp/released, which an injection creates after
  // native_first has run; it gives up after 10 seconds, which would mean
  // they waited for it (as they do on one worker).
  AddPlugin(ORVANE_TEST_PLUGIN_SLEEPER, "libsleeper.so");
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  sandbox_->WriteFile(kDebugConfiguration,
                      "free:::echo free >> /tmp/record\n"
                      "release:native.one::echo release >> /tmp/record; touch /tmp/released\n");
  RunResult result =
      Orvane({"--parallel", "--plugin=libsleeper.so,libnative_first.so,free.debug,release.debug"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  const std::vector<std::string> recorded = Recorded();
  EXPECT_THAT(recorded,
              UnorderedElementsAre("native_first start", "free", "release", "sleeper released"));
  // One worker would have kept the sleeper waiting until it gave up.
  const auto position = [&recorded](const std::string& entry) {
    return std::find(recorded.begin(), recorded.end(), entry) - recorded.begin();
  };
  EXPECT_LT(position("native_first start"), position("sleeper released"));
  EXPECT_LT(position("release"), position("sleeper released"));
}

TEST_F(NativeE2E, HelperSharesTheStandardStreamsOfTheRun) {
  AddPlugin(ORVANE_TEST_PLUGIN_TALKER, "libtalker.so");
  RunSettings settings;
  settings.stdinText = "typed by the operator\n";
  RunResult result = Orvane({"--plugin=libtalker.so"}, settings);
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Lines(result.out), Contains("talker on standard output"));
  EXPECT_THAT(Lines(result.err), Contains("talker on standard error"));
  EXPECT_THAT(Recorded(), ElementsAre("talker read 'typed by the operator'"));
}

// ---- objects that cannot be loaded

TEST_F(NativeE2E, FilesThatAreNoUsableObjectsAreReportedAndTheBootGoesOn) {
  std::string foreign(64, '\0');  // a 64-bit shared-object header for AArch64
  foreign.replace(0, 7,
                  "\x7f"
                  "ELF\x02\x01\x01");
  foreign[16] = 3;
  foreign[18] = static_cast<char>(183);
  foreign[20] = 1;
  foreign[52] = 64;
  foreign[54] = 56;
  sandbox_->WriteFile(PluginFile("x.so"), std::string(200, 'x'));
  sandbox_->WriteFile(PluginFile("empty.so"), "");
  sandbox_->WriteFile(PluginFile("aarch64.so"), foreign);
  sandbox_->WriteFile(PluginFile("truncated.so"), ShortenedPlugin(1000));
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  RunResult result =
      Orvane({"--plugin=x.so,empty.so,aarch64.so,truncated.so,missing.so,libnative_first.so"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Recorded(), ElementsAre("native_first start"));
  EXPECT_THAT(Activations(), ElementsAre("Activating Orvane plugin native_first.",
                                         "Orvane plugin native_first activated."));
  auto invalid = [](const std::string& fileName, const std::string& reason) {
    const std::string path = PluginFile(fileName);
    return "exception occurred whilst loading plugin " + fileName + ": plugin `" + path +
           "' is invalid: " + path + ": " + reason;
  };
  ExpectLoadFailure(invalid("x.so", "invalid ELF header"));
  ExpectLoadFailure(invalid("empty.so", "file too short"));
  // The loader passes over an object built for another machine as if it
  // were not there.
  ExpectLoadFailure(
      invalid("aarch64.so", "cannot open shared object file: No such file or directory"));
  // Cut off inside its loadable segments: refused before the loader could
  // touch the missing pages.
  const std::string truncated = invalid("truncated.so", "file truncated: ");
  auto found = std::find_if(messages_.begin(), messages_.end(), [&](const std::string& message) {
    return message.starts_with(truncated);
  });
  ASSERT_NE(found, messages_.end());
  EXPECT_THAT(*found, MatchesRegex(".*: a loadable segment ends at byte [0-9]+ of a file of 1000 "
                                   "bytes"));
  ExpectLoadFailure(*found);
  ExpectLoadFailure(
      invalid("missing.so", "cannot open shared object file: No such file or directory"));
}

TEST_F(NativeE2E, MissingSymbolsAndUnsupportedVersionsAreReported) {
  AddPlugin(ORVANE_TEST_PLUGIN_NO_SYMBOLS, "libnone.so");
  AddPlugin(ORVANE_TEST_PLUGIN_NO_METADATA, "libnometa.so");
  AddPlugin(ORVANE_TEST_PLUGIN_API0, "libapi0.so");
  AddPlugin(ORVANE_TEST_PLUGIN_API5, "libapi5.so");
  RunResult result = Orvane({"--plugin=libnone.so,libnometa.so,libapi0.so,libapi5.so"});
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(Activations(), IsEmpty());
  const std::string none = PluginFile("libnone.so");
  ExpectLoadFailure(
      "exception occurred whilst loading plugin libnone.so: Failed loading symbol: "
      "operations Located at: " +
      none + " Reason: " + none + ": undefined symbol: operations");
  const std::string nometa = PluginFile("libnometa.so");
  ExpectLoadFailure(
      "exception occurred whilst loading plugin libnometa.so: Failed loading "
      "symbol: metadata Located at: " +
      nometa + " Reason: " + nometa + ": undefined symbol: metadata");
  for (const std::string fileName : {"libapi0.so", "libapi5.so"}) {
    ExpectLoadFailure("exception occurred whilst loading plugin " + fileName + ": plugin `" +
                      PluginFile(fileName) + "' is invalid: Unsupported API version");
  }
}

// ---- the helper program on its own

TEST_F(NativeE2E, HelperExitsZeroWhenTheOperationSucceeds) {
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  AddPlugin(ORVANE_TEST_PLUGIN_HOST_PROFILE, "libhost_profile.so");
  RunResult start = Helper({PluginFile("libnative_first.so"), "native_first", "start"});
  EXPECT_EQ(start.exitStatus, 0);
  EXPECT_EQ(start.err, "");
  RunResult apply =
      Helper({PluginFile("libhost_profile.so"), "host_profile", "apply_host_profile"});
  EXPECT_EQ(apply.exitStatus, 0);
  EXPECT_EQ(apply.err, "");
  EXPECT_THAT(Recorded(), ElementsAre("native_first start", "host_profile apply"));
}

TEST_F(NativeE2E, HelperExitsOneWhenTheOperationFails) {
  AddPlugin(ORVANE_TEST_PLUGIN_FAILING, "libfailing.so");
  RunResult result = Helper({PluginFile("libfailing.so"), "failing", "start"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "nativeExecutor: plugin 'failing': start returned 5\n");
}

TEST_F(NativeE2E, HelperExitsTwoForUsageErrorsUnknownMethodsAndMissingOperations) {
  AddPlugin(ORVANE_TEST_PLUGIN_NATIVE_FIRST, "libnative_first.so");
  const std::string library = PluginFile("libnative_first.so");
  RunResult noArguments = Helper({});
  EXPECT_EQ(noArguments.exitStatus, 2);
  EXPECT_EQ(noArguments.err,
            "nativeExecutor: usage: nativeExecutor <library> <plugin-name> <method>\n");
  RunResult tooFew = Helper({library, "native_first"});
  EXPECT_EQ(tooFew.exitStatus, 2);
  EXPECT_EQ(tooFew.err,
            "nativeExecutor: plugin 'native_first': usage: nativeExecutor <library> "
            "<plugin-name> <method>\n");
  RunResult tooMany = Helper({library, "native_first", "start", "extra"});
  EXPECT_EQ(tooMany.exitStatus, 2);
  EXPECT_THAT(Lines(tooMany.err), SizeIs(1));
  RunResult unknown = Helper({library, "native_first", "Start"});
  EXPECT_EQ(unknown.exitStatus, 2);
  EXPECT_EQ(unknown.err, "nativeExecutor: plugin 'native_first': unknown method 'Start'\n");
  RunResult missing = Helper({library, "native_first", "apply_host_profile"});
  EXPECT_EQ(missing.exitStatus, 2);
  EXPECT_EQ(missing.err,
            "nativeExecutor: plugin 'native_first': has no apply_host_profile operation\n");
  EXPECT_THAT(Recorded(), IsEmpty());
}

TEST_F(NativeE2E, HelperExitsThreeWhenTheLibraryOrItsOperationsCannotBeLoaded) {
  AddPlugin(ORVANE_TEST_PLUGIN_NO_OPERATIONS, "libno_operations.so");
  sandbox_->WriteFile(PluginFile("x.so"), std::string(200, 'x'));
  const std::string missing = PluginFile("missing.so");
  RunResult notThere = Helper({missing, "missing", "start"});
  EXPECT_EQ(notThere.exitStatus, 3);
  EXPECT_EQ(notThere.err, "nativeExecutor: plugin 'missing': cannot load library: " + missing +
                              ": cannot open shared object file: No such file or directory\n");
  const std::string text = PluginFile("x.so");
  RunResult notELF = Helper({text, "x", "start"});
  EXPECT_EQ(notELF.exitStatus, 3);
  EXPECT_EQ(notELF.err,
            "nativeExecutor: plugin 'x': cannot load library: " + text + ": invalid ELF header\n");
  const std::string library = PluginFile("libno_operations.so");
  RunResult noOperations = Helper({library, "no_operations", "start"});
  EXPECT_EQ(noOperations.exitStatus, 3);
  EXPECT_EQ(noOperations.err, "nativeExecutor: plugin 'no_operations': cannot load operations: " +
                                  library + ": undefined symbol: operations\n");
}

}  // namespace
}  // namespace orvane::testing
