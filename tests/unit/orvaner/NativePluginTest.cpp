#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FakeSpawner.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "ZelkuserCompat/Spawn.h"
#include "log/Log.h"
#include "orvaner/Exception.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/plugins/NativePlugin.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr const char* kNativeExecutor = ORVANE_NATIVE_EXECUTOR;

/// Whether the object at @p path is loaded in this process.
bool IsLoaded(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

/// Each test links its plugins into a barrier registry of its own; the
/// plugins it loads live as long as the test.
class NativePluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    record_ = temporary_ / "record";
    ASSERT_EQ(setenv("ORVANE_TEST_RECORD", record_.c_str(), 1), 0);
  }
  void TearDown() override { unsetenv("ORVANE_TEST_RECORD"); }

  NativePlugin& Load(const std::string& name, const std::string& path,
                     const std::string& nativeExecutor = kNativeExecutor) {
    loaded_.push_back(std::make_unique<NativePlugin>(name, path, registry_, nativeExecutor));
    return *loaded_.back();
  }

  /// The message of the exception that constructing a plugin of @p path
  /// throws, checking that it is exactly of class Thrown.
  template <typename Thrown>
  std::string LoadFailure(const std::string& name, const std::string& path) {
    try {
      NativePlugin plugin(name, path, registry_, kNativeExecutor);
    } catch (const Thrown& error) {
      EXPECT_EQ(typeid(error), typeid(Thrown)) << error.what();
      return error.what();
    } catch (const std::exception& error) {
      ADD_FAILURE() << "unexpected exception class: " << error.what();
      return error.what();
    }
    ADD_FAILURE() << "loading " << path << " did not throw";
    return "";
  }

  /// The message of the MethodFailedException that @p run throws.
  template <typename Run>
  std::string MethodFailure(Run run) {
    try {
      run();
    } catch (const MethodFailedException& error) {
      return error.what();
    }
    ADD_FAILURE() << "the method did not fail";
    return "";
  }

  std::vector<std::string> Recorded() const {
    std::vector<std::string> lines;
    std::string content = temporary_.Read("record");
    for (std::size_t begin = 0; begin < content.size();) {
      std::size_t end = content.find('\n', begin);
      if (end == std::string::npos) end = content.size();
      lines.push_back(content.substr(begin, end - begin));
      begin = end + 1;
    }
    return lines;
  }

  /// A helper that records its arguments and exits with @p exitCode.
  std::string FakeHelper(int exitCode) {
    const std::string helper = temporary_ / "helper";
    temporary_.Write("helper", "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > " +
                                   (temporary_ / "args") + "\nexit " + std::to_string(exitCode) +
                                   "\n");
    std::filesystem::permissions(helper, std::filesystem::perms::owner_all);
    return helper;
  }

  unit_testing::TemporaryDirectory temporary_;
  std::string record_;
  BarrierRegistry registry_;
  std::deque<std::unique_ptr<NativePlugin>> loaded_;
};

// ---- what construction reads

TEST_F(NativePluginTest, CurrentPluginDeclaresItsBarriersAndNothingOfVersionThree) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  Node* provided = registry_.GetBarrier("native.one", false);
  ASSERT_NE(provided, nullptr);
  EXPECT_EQ(plugin.Name(), "native_first");
  EXPECT_EQ(plugin.LibraryPath(), ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  EXPECT_EQ(plugin.GetApiVersion(), 4);
  EXPECT_THAT(plugin.Successors(), ElementsAre(provided));
  EXPECT_THAT(plugin.Predecessors(), IsEmpty());
  EXPECT_THAT(provided->Predecessors(), Contains(&plugin));
  EXPECT_FALSE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "");
  EXPECT_FALSE(plugin.SupportsHostProfile());
  EXPECT_EQ(plugin.SchedulingClass(), Node::kDefaultSchedulingClass);
  EXPECT_TRUE(IsLoaded(ORVANE_TEST_PLUGIN_NATIVE_FIRST));
}

TEST_F(NativePluginTest, VersionThreeFieldsAreRead) {
  NativePlugin& plugin = Load("version3", ORVANE_TEST_PLUGIN_VERSION3);
  EXPECT_EQ(plugin.GetApiVersion(), 3);
  EXPECT_TRUE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "1.2 beta");
  EXPECT_THAT(plugin.GetRequiredFlags(), ElementsAre("x", "y"));
  EXPECT_THAT(plugin.GetDisablingFlags(), ElementsAre("nov3"));
  EXPECT_THAT(plugin.Predecessors(), ElementsAre(registry_.GetBarrier("version3.needs.a", false),
                                                 registry_.GetBarrier("version3.needs.b", false)));
  EXPECT_THAT(plugin.Successors(), ElementsAre(registry_.GetBarrier("version3.gives.a", false),
                                               registry_.GetBarrier("version3.gives.b", false)));
  EXPECT_THAT(registry_.GetBarrier("version3.needs.b", false)->Successors(), Contains(&plugin));
  EXPECT_THAT(registry_.GetBarrier("version3.gives.a", false)->Predecessors(), Contains(&plugin));
}

TEST_F(NativePluginTest, NullAndEmptyListsDeclareNothing) {
  NativePlugin& plugin = Load("version3_empty", ORVANE_TEST_PLUGIN_VERSION3_EMPTY);
  EXPECT_EQ(plugin.GetApiVersion(), 3);
  EXPECT_THAT(plugin.Predecessors(), IsEmpty());
  EXPECT_THAT(plugin.Successors(), IsEmpty());
  EXPECT_FALSE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "");
  EXPECT_THAT(plugin.GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin.GetDisablingFlags(), IsEmpty());
}

TEST_F(NativePluginTest, VersionOneIgnoresVersionThreeFieldsAndItsHostProfileOperation) {
  NativePlugin& plugin = Load("version1", ORVANE_TEST_PLUGIN_VERSION1);
  EXPECT_EQ(plugin.GetApiVersion(), 1);
  EXPECT_FALSE(plugin.IsRunOnce());
  EXPECT_EQ(plugin.GetPluginVersion(), "");
  EXPECT_THAT(plugin.GetRequiredFlags(), IsEmpty());
  EXPECT_THAT(plugin.GetDisablingFlags(), IsEmpty());
  EXPECT_FALSE(plugin.SupportsHostProfile());
  try {
    plugin.ApplyHostProfile();
    ADD_FAILURE() << "ApplyHostProfile did not throw";
  } catch (const NotImplementedException& error) {
    EXPECT_STREQ(error.what(), "method `NativePlugin::ApplyHostProfile' is not implemented");
  }
  EXPECT_FALSE(temporary_.Exists("record")) << "the host-profile operation ran";
}

TEST_F(NativePluginTest, HostProfileOperationRunsFromVersionTwo) {
  NativePlugin& plugin = Load("host_profile", ORVANE_TEST_PLUGIN_HOST_PROFILE);
  EXPECT_EQ(plugin.GetApiVersion(), 2);
  EXPECT_TRUE(plugin.SupportsHostProfile());
  plugin.ApplyHostProfile();
  plugin.Start();
  EXPECT_THAT(Recorded(), ElementsAre("host_profile apply", "host_profile start"));
}

TEST_F(NativePluginTest, WithoutHostProfileOperationApplyHostProfileIsNotImplemented) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  EXPECT_FALSE(plugin.SupportsHostProfile());
  EXPECT_THROW(plugin.ApplyHostProfile(), NotImplementedException);
}

TEST_F(NativePluginTest, ExamplePluginLoadsAndStarts) {
  NativePlugin& plugin = Load("example", ORVANE_EXAMPLE_PLUGIN);
  EXPECT_EQ(plugin.GetApiVersion(), 4);
  EXPECT_EQ(plugin.GetPluginVersion(), "1.0");
  EXPECT_THAT(plugin.GetDisablingFlags(), ElementsAre("nonetwork"));
  EXPECT_THAT(plugin.Predecessors(), ElementsAre(registry_.GetBarrier("storage", false)));
  EXPECT_THAT(plugin.Successors(), ElementsAre(registry_.GetBarrier("network", false)));
  EXPECT_TRUE(plugin.SupportsHostProfile());
  ::testing::internal::CaptureStdout();
  plugin.Start();
  plugin.ApplyHostProfile();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "example: network interface up\n"
            "example: network settings taken from the host profile\n");
}

// ---- what construction refuses

TEST_F(NativePluginTest, ApiVersionsZeroAndFiveAreUnsupportedAndUnloaded) {
  for (const std::string path : {ORVANE_TEST_PLUGIN_API0, ORVANE_TEST_PLUGIN_API5}) {
    EXPECT_EQ(LoadFailure<InvalidPluginException>("api", path),
              "plugin `" + path + "' is invalid: Unsupported API version");
    EXPECT_FALSE(IsLoaded(path)) << path;
  }
  EXPECT_EQ(registry_.GetBarrier("api_version.never", false), nullptr);
}

TEST_F(NativePluginTest, MissingOperationsIsNamedEvenWhenMetadataIsMissingToo) {
  const std::string path = ORVANE_TEST_PLUGIN_NO_SYMBOLS;
  EXPECT_EQ(LoadFailure<Exception>("no_symbols", path),
            "Failed loading symbol: operations Located at: " + path + " Reason: " + path +
                ": undefined symbol: operations");
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(NativePluginTest, MissingOperationsIsTheBaseException) {
  const std::string path = ORVANE_TEST_PLUGIN_NO_OPERATIONS;
  EXPECT_EQ(LoadFailure<Exception>("no_operations", path),
            "Failed loading symbol: operations Located at: " + path + " Reason: " + path +
                ": undefined symbol: operations");
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(NativePluginTest, MissingMetadataIsTheBaseException) {
  const std::string path = ORVANE_TEST_PLUGIN_NO_METADATA;
  EXPECT_EQ(LoadFailure<Exception>("no_metadata", path),
            "Failed loading symbol: metadata Located at: " + path + " Reason: " + path +
                ": undefined symbol: metadata");
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(NativePluginTest, MissingFileIsInvalidWithTheLoadersReason) {
  const std::string path = temporary_ / "missing.so";
  EXPECT_EQ(LoadFailure<InvalidPluginException>("missing", path),
            "plugin `" + path + "' is invalid: " + path +
                ": cannot open shared object file: No such file or directory");
}

/// The first @p size bytes of a real plugin object.
std::string ShortenedPlugin(std::size_t size) {
  std::ifstream stream(ORVANE_TEST_PLUGIN_NATIVE_FIRST, std::ios::binary);
  std::string content(size, '\0');
  stream.read(content.data(), static_cast<std::streamsize>(size));
  return content;
}

TEST_F(NativePluginTest, FilesThatAreNoSharedObjectsAreInvalidWithTheLoadersReason) {
  struct Case {
    std::string name;
    std::string content;
    std::string reason;
  };
  std::string elfStart =
      "\x7f"
      "ELF";
  const std::vector<Case> cases = {
      {"empty.so", "", "file too short"},
      {"short.so", "not an object\n", "file too short"},
      {"text.so", std::string(200, 'x'), "invalid ELF header"},
      {"header-only.so", ShortenedPlugin(64), "cannot read file data"},
      {"elf32.so", elfStart + std::string("\x01\x01\x01", 3) + std::string(57, '\0'),
       "wrong ELF class: ELFCLASS32"},
  };
  for (const Case& test : cases) {
    temporary_.Write(test.name, test.content);
    const std::string path = temporary_ / test.name;
    EXPECT_EQ(LoadFailure<InvalidPluginException>("bad", path),
              "plugin `" + path + "' is invalid: " + path + ": " + test.reason);
  }
}

TEST_F(NativePluginTest, TruncatedObjectIsRefusedBeforeTheLoaderMapsIt) {
  // Opened as it is, the cut-off object would take this process down with
  // SIGBUS when the loader touches its missing pages. Cut inside its program
  // header table (after the ELF header, one entry and part of the next), it
  // still shows the entries before the cut, and the first of them is a
  // loadable segment that the file no longer holds.
  for (const std::size_t cut : {std::size_t{1000}, std::size_t{64 + 56 + 20}}) {
    SCOPED_TRACE(cut);
    const std::string name = "truncated" + std::to_string(cut);
    temporary_.Write(name + ".so", ShortenedPlugin(cut));
    const std::string path = temporary_ / (name + ".so");
    EXPECT_THAT(LoadFailure<InvalidPluginException>(name, path),
                MatchesRegex("plugin `" + path + "' is invalid: " + path +
                             ": file truncated: a loadable segment ends at byte [0-9]+ of a file "
                             "of " +
                             std::to_string(cut) + " bytes"));
    EXPECT_FALSE(IsLoaded(path));
  }
}

// The loader opens what it is given with a plain open, which waits for a
// FIFO's writer for ever.
TEST_F(NativePluginTest, FifoIsRefusedBeforeTheLoaderOpensIt) {
  const std::string path = temporary_ / "libx.so";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(LoadFailure<InvalidPluginException>("x", path),
            "plugin `" + path + "' is invalid: not a regular file (a FIFO)");
}

TEST_F(NativePluginTest, DirectoryIsRefusedAsNotARegularFile) {
  const std::string path = temporary_ / "dir.so";
  std::filesystem::create_directory(path);
  EXPECT_EQ(LoadFailure<InvalidPluginException>("dir", path),
            "plugin `" + path + "' is invalid: not a regular file (a directory)");
}

TEST_F(NativePluginTest, LinkToAPluginObjectIsFollowed) {
  const std::string path = temporary_ / "liblinked.so";
  std::filesystem::create_symlink(ORVANE_EXAMPLE_PLUGIN, path);
  EXPECT_EQ(Load("linked", path).GetApiVersion(), 4);
}

TEST_F(NativePluginTest, ObjectOfAnotherMachineIsInvalid) {
  // A 64-bit little-endian shared-object header for AArch64 (machine 183).
  std::string header(64, '\0');
  header.replace(0, 7,
                 "\x7f"
                 "ELF\x02\x01\x01");
  header[16] = 3;
  header[18] = static_cast<char>(183);
  header[20] = 1;
  header[52] = 64;
  header[54] = 56;
  temporary_.Write("aarch64.so", header);
  const std::string path = temporary_ / "aarch64.so";
  // The loader passes over an object of another machine as if it were not
  // there, and says so.
  EXPECT_EQ(LoadFailure<InvalidPluginException>("aarch64", path),
            "plugin `" + path + "' is invalid: " + path +
                ": cannot open shared object file: No such file or directory");
  EXPECT_FALSE(IsLoaded(path));
}

// ---- running methods in the helper

TEST_F(NativePluginTest, StartRunsTheStartOperationInTheHelper) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  plugin.Start();
  EXPECT_THAT(Recorded(), ElementsAre("native_first start"));
}

TEST_F(NativePluginTest, HelperGetsTheLibraryThePluginNameAndTheMethod) {
  const std::string helper = FakeHelper(0);
  NativePlugin& plugin = Load("host_profile", ORVANE_TEST_PLUGIN_HOST_PROFILE, helper);
  plugin.Start();
  EXPECT_EQ(temporary_.Read("args"),
            helper + "\n" ORVANE_TEST_PLUGIN_HOST_PROFILE "\nhost_profile\nstart\n");
  plugin.ApplyHostProfile();
  EXPECT_EQ(temporary_.Read("args"),
            helper + "\n" ORVANE_TEST_PLUGIN_HOST_PROFILE "\nhost_profile\napply_host_profile\n");
}

TEST_F(NativePluginTest, HelperExitCodeThreeIsTheReason) {
  NativePlugin& plugin = Load("host_profile", ORVANE_TEST_PLUGIN_HOST_PROFILE, FakeHelper(3));
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "host_profile->start() failed: exited with code 3");
  EXPECT_EQ(MethodFailure([&] { plugin.ApplyHostProfile(); }),
            "host_profile->apply_host_profile() failed: exited with code 3");
}

TEST_F(NativePluginTest, OperationThatExitsThreeFailsWithCodeThree) {
  NativePlugin& plugin = Load("exit3", ORVANE_TEST_PLUGIN_EXIT3);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }), "exit3->start() failed: exited with code 3");
}

TEST_F(NativePluginTest, OperationThatReturnsNonZeroFailsWithTheHelpersCodeOne) {
  NativePlugin& plugin = Load("failing", ORVANE_TEST_PLUGIN_FAILING);
  ::testing::internal::CaptureStderr();
  const std::string failure = MethodFailure([&] { plugin.Start(); });
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "nativeExecutor: plugin 'failing': start returned 5\n");
  EXPECT_EQ(failure, "failing->start() failed: exited with code 1");
}

TEST_F(NativePluginTest, HelperKilledBySignalNineFailsWithTheSignal) {
  NativePlugin& plugin = Load("killed", ORVANE_TEST_PLUGIN_KILLED);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "killed->start() failed: exited with signal: 9");
}

TEST_F(NativePluginTest, SegmentationFaultInTheOperationFailsWithSignalElevenAndSparesUs) {
  NativePlugin& plugin = Load("crash", ORVANE_TEST_PLUGIN_CRASH);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "crash->start() failed: exited with signal: 11");
  // This process goes on: the same plugin object can run again.
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "crash->start() failed: exited with signal: 11");
}

TEST_F(NativePluginTest, StoppedHelperIsAnUnknownFailure) {
  NativePlugin& plugin = Load("stopped", ORVANE_TEST_PLUGIN_STOPPED);
  const std::string failure = MethodFailure([&] { plugin.Start(); });
  std::vector<std::string> recorded = Recorded();
  ASSERT_EQ(recorded.size(), 1u);
  const pid_t helper = static_cast<pid_t>(std::stol(recorded[0]));
  if (failure == "stopped->start() failed: exited with code 7") {
    GTEST_SKIP() << "this system does not allow the helper to be traced";
  }
  EXPECT_EQ(failure, "stopped->start() failed: exited: <unknown failure>");
  // The helper is still there, stopped; end it.
  ASSERT_EQ(kill(helper, SIGKILL), 0);
  int status = 0;
  ASSERT_EQ(waitpid(helper, &status, 0), helper);
  EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(NativePluginTest, MissingHelperFailsToSpawn) {
  NativePlugin& plugin =
      Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST, temporary_ / "no-such-helper");
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: failed to spawn: No such file or directory");
}

TEST_F(NativePluginTest, HelperThatIsNotExecutableFailsToSpawn) {
  temporary_.Write("not-executable", "#!/bin/sh\nexit 0\n");
  NativePlugin& plugin =
      Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST, temporary_ / "not-executable");
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: failed to spawn: Permission denied");
}

TEST_F(NativePluginTest, FileActionsThatCannotBeCreatedAreTheReason) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  const unit_testing::ScopedSpawnCallFailure failure(ZelkuserCompat_Call::SpawnFileActionsInit,
                                                     ENOMEM);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: failed to init file actions: Cannot allocate memory");
  EXPECT_FALSE(temporary_.Exists("record")) << "the helper ran";
}

TEST_F(NativePluginTest, DescriptorThatCannotBeSharedIsTheReasonWithoutSeparator) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  // UndefinedBehaviorSanitizer checks the spawner's type at its first
  // virtual call and needs descriptors for that; that call comes first.
  process::Spawner::Instance().Poll(unit_testing::FakeSpawner::kFakePid);
  // With room for two descriptors only, standard error cannot be handed on.
  rlimit previous{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &previous), 0);
  rlimit two = previous;
  two.rlim_cur = 2;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &two), 0);
  std::string failure;
  try {
    plugin.Start();
    setrlimit(RLIMIT_NOFILE, &previous);
  } catch (const MethodFailedException& error) {
    // The limit goes back first: sanitizers need descriptors to inspect
    // the exception.
    setrlimit(RLIMIT_NOFILE, &previous);
    failure = error.what();
  }
  EXPECT_EQ(failure,
            "native_first->start() failed: failed to add dup2 file actionsBad file descriptor");
  EXPECT_FALSE(temporary_.Exists("record")) << "the helper ran";
}

TEST_F(NativePluginTest, ExitStatusThatCannotBeReadIsTheReason) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  // With SIGCHLD ignored the kernel reaps the helper, so there is no status
  // left to wait for.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &previous), 0);
  const std::string failure = MethodFailure([&] { plugin.Start(); });
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_EQ(failure, "native_first->start() failed: failed to read exit status");
  EXPECT_THAT(Recorded(), ElementsAre("native_first start"));
}

TEST_F(NativePluginTest, HelperSharesOurStandardDescriptorsEvenWhenMarkedCloseOnExec) {
  NativePlugin& plugin = Load("talker", ORVANE_TEST_PLUGIN_TALKER);
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  ASSERT_EQ(write(input[1], "hello\n", 6), 6);
  close(input[1]);
  const int savedInput = dup(STDIN_FILENO);
  ASSERT_GE(savedInput, 0);
  ASSERT_EQ(dup2(input[0], STDIN_FILENO), STDIN_FILENO);
  close(input[0]);
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
  plugin.Start();
  for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    fcntl(descriptor, F_SETFD, 0);
  }
  const std::string output = ::testing::internal::GetCapturedStdout();
  const std::string errors = ::testing::internal::GetCapturedStderr();
  dup2(savedInput, STDIN_FILENO);
  close(savedInput);
  EXPECT_EQ(output, "talker on standard output\n");
  EXPECT_EQ(errors, "talker on standard error\n");
  EXPECT_THAT(Recorded(), ElementsAre("talker read 'hello'"));
}

TEST_F(NativePluginTest, InvokeMethodReportsAHostProfileThatVersionOneCannotApply) {
  NativePlugin& plugin = Load("version1", ORVANE_TEST_PLUGIN_VERSION1);
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(plugin.InvokeMethod("apply_host_profile"));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("unable to invoke method 'apply_host_profile' on plugin 'version1': "
                        "method `NativePlugin::ApplyHostProfile' is not implemented\n"));
}

// ---- in the graph

TEST_F(NativePluginTest, CrashingPluginIsReportedAndItsDependantStillRuns) {
  NativePlugin& crash = Load("crash", ORVANE_TEST_PLUGIN_CRASH);
  NativePlugin& after = Load("native_second", ORVANE_TEST_PLUGIN_NATIVE_SECOND);
  // native_second waits for native.two; let that wait for the crash.
  Node& gate = *registry_.GetBarrier("CrashingPluginIsReported.gate", true);
  crash.Provides(gate);
  gate.Provides(*registry_.GetBarrier("native.two", true));
  ASSERT_FALSE(RunOptions::Instance().interactive);
  ASSERT_TRUE(RunOptions::Instance().method.empty());
  std::vector<std::string> kernelLog;
  const unit_testing::ScopedAlertLogSink alertLogSink(
      [&kernelLog](const std::string& line) { kernelLog.push_back(line); });
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    after.ScheduleStart(executor);
    crash.ScheduleStart(executor);
    after.WaitStarted();
    crash.WaitStarted();
  }
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(logged, HasSubstr("Method invocation failed: crash->start() failed: exited with "
                                "signal: 11\n"));
  EXPECT_THAT(kernelLog, ElementsAre("Activating Orvane plugin crash.",
                                     "Orvane plugin crash activation failed: crash->start() "
                                     "failed: exited with signal: 11",
                                     "Activating Orvane plugin native_second.",
                                     "Orvane plugin native_second activated."));
  EXPECT_THAT(Recorded(), ElementsAre("native_second start"));
}

// ---- loading through the plugin directory

class NativePluginLoadingTest : public NativePluginTest {
 protected:
  void SetUp() override {
    NativePluginTest::SetUp();
    directory_ = temporary_ / "plugins";
    std::filesystem::create_directory(directory_);
    savedDirectory_ = RunOptions::Instance().pluginDirectory;
    RunOptions::Instance().pluginDirectory = directory_;
  }
  void TearDown() override {
    RunOptions::Instance().pluginDirectory = savedDirectory_;
    NativePluginTest::TearDown();
  }

  void CopyPlugin(const std::string& from, const std::string& as) {
    std::filesystem::copy_file(from, directory_ + "/" + as);
  }

  std::string LoadNamed(const std::string& fileName) {
    ::testing::internal::CaptureStderr();
    LoadPlugin(fileName, plugins_, PluginFilters{{}, noneDisabled_, runOnce_},
               RunOptions::Instance(), registry_, temporary_ / "debug.conf");
    return ::testing::internal::GetCapturedStderr();
  }

  std::string directory_;
  std::string savedDirectory_;
  std::vector<std::string> alerts_;
  unit_testing::ScopedSystemAlertSink alertSink_{
      [this](const std::string& text) { alerts_.push_back(text); }};
  std::vector<std::string> noneDisabled_;
  std::set<std::string> runOnce_;
  LoadedPlugins plugins_;
};

TEST_F(NativePluginLoadingTest, SharedObjectNameLoadsANativePluginFromThePluginDirectory) {
  CopyPlugin(ORVANE_TEST_PLUGIN_VERSION3_EMPTY, "libempty.so");
  CopyPlugin(ORVANE_TEST_PLUGIN_VERSION3_EMPTY, "bare.so");
  EXPECT_EQ(LoadNamed("libempty.so"), "");
  EXPECT_EQ(LoadNamed("bare.so"), "");
  ASSERT_EQ(plugins_.List().size(), 2u);
  auto* first = dynamic_cast<NativePlugin*>(plugins_.List()[0]);
  auto* second = dynamic_cast<NativePlugin*>(plugins_.List()[1]);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->Name(), "empty");
  EXPECT_EQ(first->LibraryPath(), directory_ + "/libempty.so");
  EXPECT_EQ(second->Name(), "bare");
  EXPECT_EQ(second->LibraryPath(), directory_ + "/bare.so");
  EXPECT_THAT(alerts_, IsEmpty());
}

TEST_F(NativePluginLoadingTest, ObjectThatIsNoELFIsReportedAndLeftOut) {
  temporary_.Write("plugins/x.so", std::string(100, 't'));
  const std::string path = directory_ + "/x.so";
  const std::string text = "exception occurred whilst loading plugin x.so: plugin `" + path +
                           "' is invalid: " + path + ": invalid ELF header";
  EXPECT_EQ(LoadNamed("x.so"), text + "\n");
  EXPECT_THAT(alerts_, ElementsAre(text));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(NativePluginLoadingTest, MissingSymbolIsReportedAndLeftOut) {
  CopyPlugin(ORVANE_TEST_PLUGIN_NO_METADATA, "libbroken.so");
  const std::string path = directory_ + "/libbroken.so";
  const std::string text =
      "exception occurred whilst loading plugin libbroken.so: Failed loading symbol: metadata "
      "Located at: " +
      path + " Reason: " + path + ": undefined symbol: metadata";
  EXPECT_EQ(LoadNamed("libbroken.so"), text + "\n");
  EXPECT_THAT(alerts_, ElementsAre(text));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(NativePluginLoadingTest, LoadingGoesOnAfterABrokenObject) {
  CopyPlugin(ORVANE_TEST_PLUGIN_API5, "libapi5.so");
  CopyPlugin(ORVANE_TEST_PLUGIN_VERSION3_EMPTY, "libgood.so");
  LoadNamed("libapi5.so");
  LoadNamed("missing.so");
  LoadNamed("libgood.so");
  ASSERT_EQ(plugins_.List().size(), 1u);
  EXPECT_EQ(plugins_.List()[0]->Name(), "good");
  const std::string directory = directory_;
  EXPECT_THAT(alerts_,
              ElementsAre("exception occurred whilst loading plugin libapi5.so: plugin `" +
                              directory + "/libapi5.so' is invalid: Unsupported API version",
                          "exception occurred whilst loading plugin missing.so: plugin `" +
                              directory + "/missing.so' is invalid: " + directory +
                              "/missing.so: cannot open shared object file: No such file or "
                              "directory"));
}

// ---- the helper's outcomes, without processes

TEST_F(NativePluginTest, HelperIsStartedWithItsArgumentsAndWaitedFor) {
  NativePlugin& plugin = Load("host_profile", ORVANE_TEST_PLUGIN_HOST_PROFILE);
  unit_testing::FakeSpawner spawner;
  EXPECT_NO_THROW(plugin.Start());
  const std::string fakePid = std::to_string(unit_testing::FakeSpawner::kFakePid);
  EXPECT_THAT(spawner.Calls(),
              ElementsAre(std::string("start ") + kNativeExecutor +
                              " " ORVANE_TEST_PLUGIN_HOST_PROFILE " host_profile start",
                          "wait " + fakePid));
}

TEST_F(NativePluginTest, HelperExitCodesAreTheReasonWithoutProcesses) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  unit_testing::FakeSpawner spawner;
  for (int code : {1, 2, 3, 255}) {
    spawner.waitStatus = process::ExitStatus::ExitedWith(code);
    EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
              "native_first->start() failed: exited with code " + std::to_string(code));
  }
}

TEST_F(NativePluginTest, HelperKilledBySignalIsTheReasonWithoutProcesses) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  unit_testing::FakeSpawner spawner;
  spawner.waitStatus = process::ExitStatus::KilledBy(SIGABRT);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: exited with signal: 6");
}

TEST_F(NativePluginTest, HelperStatusThatIsNeitherExitNorSignalIsUnknownWithoutProcesses) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  unit_testing::FakeSpawner spawner;
  spawner.waitStatus = process::ExitStatus::FromWaitStatus(0x137f);  // stopped by SIGSTOP
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: exited: <unknown failure>");
}

TEST_F(NativePluginTest, HelperStatusThatCannotBeCollectedIsTheReasonWithoutProcesses) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  unit_testing::FakeSpawner spawner;
  spawner.waitStatus = process::ExitStatus::NotCollected(ECHILD);
  EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
            "native_first->start() failed: failed to read exit status");
}

TEST_F(NativePluginTest, EachStartStepThatFailsHasItsOwnReasonAndNothingIsWaitedFor) {
  NativePlugin& plugin = Load("native_first", ORVANE_TEST_PLUGIN_NATIVE_FIRST);
  const struct {
    process::StartStep step;
    int error;
    const char* reason;
  } cases[] = {
      {process::StartStep::PrepareSpawn, ENOMEM,
       "failed to init file actions: Cannot allocate memory"},
      {process::StartStep::ShareStream, EBADF,
       "failed to add dup2 file actionsBad file descriptor"},
      {process::StartStep::Spawn, EACCES, "failed to spawn: Permission denied"},
  };
  for (const auto& failure : cases) {
    unit_testing::FakeSpawner spawner;
    spawner.startFailure = failure.step;
    spawner.startError = failure.error;
    EXPECT_EQ(MethodFailure([&] { plugin.Start(); }),
              std::string("native_first->start() failed: ") + failure.reason);
    ASSERT_EQ(spawner.Calls().size(), 1u);
    EXPECT_THAT(spawner.Calls()[0], ::testing::StartsWith("start "));
  }
}

}  // namespace
}  // namespace orvane
