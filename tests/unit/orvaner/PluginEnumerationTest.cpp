#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "log/Log.h"
#include "orvaner/RunOptions.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/plugins/DebugPlugin.h"
#include "orvaner/plugins/JSONPlugin.h"
#include "orvaner/plugins/LoadedPlugins.h"
#include "orvaner/run/PluginEnumeration.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

/// Each test has its own barrier registry and its own, initially empty,
/// plugin directory.
class PluginEnumerationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    debugConfiguration_ = (directory_ / "debug.conf").string();
    options_.pluginDirectory = (directory_ / "plugins").string();
    std::filesystem::create_directory(options_.pluginDirectory);
  }

  void WriteDebugConfiguration(const std::string& content) {
    std::ofstream(debugConfiguration_) << content;
  }

  /// "name: command" for each plugin of the list, in order.
  std::vector<std::string> Loaded() const {
    std::vector<std::string> loaded;
    for (Plugin* plugin : plugins_.List()) {
      loaded.push_back(plugin->Name() + ": " + static_cast<DebugPlugin*>(plugin)->Command());
    }
    return loaded;
  }

  std::string Load(const std::string& fileName) {
    ::testing::internal::CaptureStderr();
    LoadPlugin(fileName, plugins_, PluginFilters{{}, noneDisabled_, noRunOnce_}, options_,
               registry_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  std::string Enumerate(const std::vector<std::string>& names) {
    ::testing::internal::CaptureStderr();
    EnumeratePlugins(names, PluginFilters{{}, noneDisabled_, noRunOnce_}, options_, plugins_,
                     registry_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  unit_testing::TemporaryDirectory temporary_;
  const std::filesystem::path& directory_ = temporary_.Path();
  std::string debugConfiguration_;
  RunOptions options_;
  std::vector<std::string> noneDisabled_;
  std::set<std::string> noRunOnce_;
  BarrierRegistry registry_;
  LoadedPlugins plugins_;
};

TEST_F(PluginEnumerationTest, WithoutNamesEveryDebugEntryLoadsInFileOrder) {
  WriteDebugConfiguration("b:::echo b\na:::echo a\nb:::echo b2\n");
  EXPECT_EQ(Enumerate({}), "");
  EXPECT_THAT(Loaded(), ElementsAre("b: echo b", "a: echo a", "b: echo b2"));
}

TEST_F(PluginEnumerationTest, WithoutNamesOrDebugConfigurationNothingLoads) {
  EXPECT_EQ(Enumerate({}), "");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginEnumerationTest, DebugNameLoadsOnlyTheEntriesOfThatName) {
  WriteDebugConfiguration("a:::echo a1\nb:::echo b\na:::echo a2\nab:::echo ab\n");
  EXPECT_EQ(Load("a.debug"), "");
  EXPECT_THAT(Loaded(), ElementsAre("a: echo a1", "a: echo a2"));
}

TEST_F(PluginEnumerationTest, LeadingLibIsStrippedFromTheDebugName) {
  WriteDebugConfiguration("inj:::echo inj\nlibinj:::echo libinj\nLIBinj:::echo upper\n");
  Load("libinj.debug");
  Load("LIBinj.debug");
  EXPECT_THAT(Loaded(), ElementsAre("inj: echo inj", "LIBinj: echo upper"));
}

TEST_F(PluginEnumerationTest, OnlyTheLastDotSeparatesTheExtension) {
  WriteDebugConfiguration("a.b:::echo dotted\na:::echo plain\n");
  Load("a.b.debug");
  EXPECT_THAT(Loaded(), ElementsAre("a.b: echo dotted"));
}

TEST_F(PluginEnumerationTest, ExtensionIsComparedExactly) {
  WriteDebugConfiguration("inj:::echo inj\n");
  EXPECT_THAT(Load("inj.DEBUG"), HasSubstr("of unknown type (DEBUG)"));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginEnumerationTest, RepeatedNamesLoadAgain) {
  WriteDebugConfiguration("inj:::echo inj\n");
  Enumerate({"inj.debug", "inj.debug"});
  EXPECT_THAT(Loaded(), ElementsAre("inj: echo inj", "inj: echo inj"));
}

TEST_F(PluginEnumerationTest, NamesLoadInTheOrderGiven) {
  WriteDebugConfiguration("a:::echo a\nb:::echo b\n");
  Enumerate({"b.debug", "a.debug"});
  EXPECT_THAT(Loaded(), ElementsAre("b: echo b", "a: echo a"));
}

TEST_F(PluginEnumerationTest, DebugNameWithoutEntriesLoadsNothing) {
  WriteDebugConfiguration("other:::true\n");
  EXPECT_EQ(Load("inj.debug"), "");
  std::filesystem::remove(debugConfiguration_);
  EXPECT_EQ(Load("inj.debug"), "");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginEnumerationTest, NameWithoutADotIsOfUnspecifiedType) {
  EXPECT_THAT(Load("README"), HasSubstr("ignoring plugin 'README' of unspecified type...\n"));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginEnumerationTest, OtherExtensionIsOfUnknownType) {
  EXPECT_THAT(Load("notes.txt"),
              HasSubstr("ignoring plugin 'notes.txt' of unknown type (txt)...\n"));
  EXPECT_THAT(Load("trailing."), HasSubstr("ignoring plugin 'trailing.' of unknown type ()...\n"));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginEnumerationTest, DebugConfigurationIsReadAfreshForEveryName) {
  WriteDebugConfiguration("inj:::echo old\n");
  Load("inj.debug");
  WriteDebugConfiguration("inj:::echo new\n");
  Load("inj.debug");
  EXPECT_THAT(Loaded(), ElementsAre("inj: echo old", "inj: echo new"));
}

TEST_F(PluginEnumerationTest, MalformedLinesAreReportedForEachDebugName) {
  WriteDebugConfiguration("broken\ninj:::true\n");
  EXPECT_THAT(Load("inj.debug"), HasSubstr("ignoring malformed debug entry at line 1: broken\n"));
  EXPECT_THAT(Loaded(), ElementsAre("inj: true"));
}

// ---- names, kinds and filters of plugin files

/// A version-3 JSON description with no barriers.
std::string Description(const std::string& requiredFlags = "[]",
                        const std::string& disablingFlags = "[]", bool runOnce = false,
                        const std::string& pluginVersion = "1.0") {
  return R"({"metadata": {"version": 3, "requires": [], "provides": [], "required_flags": )" +
         requiredFlags + R"(, "disabling_flags": )" + disablingFlags + R"(, "run_once": )" +
         (runOnce ? "true" : "false") + R"(, "plugin_version": ")" + pluginVersion +
         R"("}, "operations": {"start": []}})";
}

/// Plugin files in a directory of their own, loaded with filters the test
/// sets; alerts are collected instead of raised.
class PluginFilterTest : public PluginEnumerationTest {
 protected:
  void WritePlugin(const std::string& fileName, const std::string& content) {
    std::ofstream(std::filesystem::path(options_.pluginDirectory) / fileName) << content;
  }

  std::string LoadFiltered(const std::string& fileName) {
    ::testing::internal::CaptureStderr();
    LoadPlugin(fileName, plugins_, PluginFilters{bootFlags_, disabled_, runOnce_}, options_,
               registry_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  std::string EnumerateFiltered(const std::vector<std::string>& names) {
    ::testing::internal::CaptureStderr();
    EnumeratePlugins(names, PluginFilters{bootFlags_, disabled_, runOnce_}, options_, plugins_,
                     registry_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (Plugin* plugin : plugins_.List()) names.push_back(plugin->Name());
    return names;
  }

  std::set<std::string> bootFlags_;
  std::vector<std::string> disabled_;
  std::set<std::string> runOnce_;
  std::vector<std::string> alerts_;
  unit_testing::ScopedSystemAlertSink alertSink_{
      [this](const std::string& text) { alerts_.push_back(text); }};
};

TEST_F(PluginFilterTest, FileNamedDotJsonIsAJSONPluginWithAnEmptyName) {
  WritePlugin(".json", Description());
  EXPECT_EQ(LoadFiltered(".json"), "");
  EXPECT_THAT(Names(), ElementsAre(""));
  EXPECT_NE(dynamic_cast<JSONPlugin*>(plugins_.List().front()), nullptr);
}

TEST_F(PluginFilterTest, LibPrefixedAndPlainSharedObjectsBothLoadThePluginNet) {
  std::filesystem::copy_file(ORVANE_TEST_PLUGIN_VERSION3_EMPTY,
                             std::filesystem::path(options_.pluginDirectory) / "libnet.so");
  std::filesystem::copy_file(ORVANE_TEST_PLUGIN_VERSION3_EMPTY,
                             std::filesystem::path(options_.pluginDirectory) / "net.so");
  EXPECT_EQ(LoadFiltered("libnet.so"), "");
  EXPECT_EQ(LoadFiltered("net.so"), "");
  EXPECT_THAT(Names(), ElementsAre("net", "net"));
  EXPECT_THAT(alerts_, IsEmpty());
}

TEST_F(PluginFilterTest, DisabledNameRefusesBothFilesOfThePlugin) {
  WritePlugin("libnet.json", Description());
  WritePlugin("net.json", Description());
  disabled_ = {"other", "net"};
  EXPECT_EQ(LoadFiltered("libnet.json"), "ignoring plugin 'net' due to blacklist.\n");
  EXPECT_EQ(LoadFiltered("net.json"), "ignoring plugin 'net' due to blacklist.\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, DisabledListComparesWholePluginNames) {
  WritePlugin("libnet.json", Description());
  WritePlugin("net.json", Description());
  disabled_ = {"libnet", "net.json", "ne", "NET"};
  EXPECT_EQ(LoadFiltered("libnet.json"), "");
  EXPECT_EQ(LoadFiltered("net.json"), "");
  EXPECT_THAT(Names(), ElementsAre("net", "net"));
}

TEST_F(PluginFilterTest, DisabledListIsCheckedBeforeTheBootFlags) {
  WritePlugin("net.json", Description(R"(["x"])", R"(["a"])"));
  disabled_ = {"net"};
  bootFlags_ = {"a"};
  EXPECT_EQ(LoadFiltered("net.json"), "ignoring plugin 'net' due to blacklist.\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, DisablingBootFlagShowsOnlyTheIntersectingFlags) {
  WritePlugin("net.json", Description("[]", R"(["a", "b"])"));
  bootFlags_ = {"b", "c"};
  EXPECT_EQ(LoadFiltered("net.json"), "ignoring plugin 'net', disabled due to boot flags: b .\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, DisablingFlagsAreShownSortedEachFollowedByABlank) {
  WritePlugin("net.json", Description("[]", R"(["z", "a", "m"])"));
  bootFlags_ = {"m", "z", "a"};
  EXPECT_EQ(LoadFiltered("net.json"),
            "ignoring plugin 'net', disabled due to boot flags: a m z .\n");
}

TEST_F(PluginFilterTest, MissingRequiredFlagIsShownWithATrailingBlank) {
  WritePlugin("net.json", Description(R"(["x", "y"])"));
  bootFlags_ = {"x"};
  EXPECT_EQ(LoadFiltered("net.json"),
            "ignoring plugin 'net', disabled due to missing required boot flags: y .\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, PluginRefusedByBothFlagRulesLogsBothBootFlagsFirst) {
  WritePlugin("net.json", Description(R"(["x", "y"])", R"(["a"])"));
  bootFlags_ = {"a"};
  EXPECT_EQ(LoadFiltered("net.json"),
            "ignoring plugin 'net', disabled due to boot flags: a .\n"
            "ignoring plugin 'net', disabled due to missing required boot flags: x y .\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, PluginWithEveryRequiredFlagAndNoDisablingOnePasses) {
  WritePlugin("net.json", Description(R"(["x", "y"])", R"(["a"])"));
  bootFlags_ = {"b", "x", "y"};
  EXPECT_EQ(LoadFiltered("net.json"), "");
  ASSERT_THAT(Names(), ElementsAre("net"));
  EXPECT_EQ(plugins_.List().front()->State(), NodeState::Idle);
}

// A refused plugin is marked done and kept alive (it may have joined
// barriers), but it is not in the list; a JSON plugin's barriers tell.
TEST_F(PluginFilterTest, RefusedPluginIsMarkedDoneAndStillReleasesWhatItProvides) {
  WritePlugin("net.json",
              R"({"metadata": {"version": 3, "requires": [], "provides": ["enumtest.refused"],)"
              R"( "disabling_flags": ["a"], "run_once": false, "plugin_version": "1"},)"
              R"( "operations": {"start": []}})");
  bootFlags_ = {"a"};
  LoadFiltered("net.json");
  EXPECT_THAT(plugins_.List(), IsEmpty());
  Node* barrier = registry_.GetBarrier("enumtest.refused", false);
  ASSERT_NE(barrier, nullptr);
  ASSERT_EQ(barrier->Predecessors().size(), 1u);
  EXPECT_EQ(barrier->Predecessors().front()->Name(), "net");
  EXPECT_EQ(barrier->Predecessors().front()->State(), NodeState::Started);
}

TEST_F(PluginFilterTest, RunOncePluginRecordsItsCleanedKeyAndIsNotRecognisedNextTime) {
  WritePlugin("net.json", Description("[]", "[]", true, "1.0 beta"));
  EXPECT_EQ(LoadFiltered("net.json"), "");
  EXPECT_THAT(runOnce_, ElementsAre("net1.0beta"));
  EXPECT_EQ(LoadFiltered("net.json"), "");
  EXPECT_THAT(runOnce_, ElementsAre("net1.0beta"));
  ASSERT_EQ(plugins_.List().size(), 2u);
  EXPECT_EQ(plugins_.List()[0]->State(), NodeState::Idle);
  EXPECT_EQ(plugins_.List()[1]->State(), NodeState::Idle);
}

TEST_F(PluginFilterTest, RunOncePluginAlreadyRunStaysInTheListMarkedDone) {
  WritePlugin("net.json", Description("[]", "[]", true, "2.1-rc+x_y"));
  runOnce_ = {"net2.1-rc+x_y"};
  EXPECT_EQ(LoadFiltered("net.json"),
            "ignoring plugin 'net' because version '2.1-rc+x_y'  has already been run.\n");
  ASSERT_THAT(Names(), ElementsAre("net"));
  EXPECT_EQ(plugins_.List().front()->State(), NodeState::Started);
  EXPECT_THAT(runOnce_, ElementsAre("net2.1-rc+x_y"));
}

TEST_F(PluginFilterTest, RunOnceKeyOfARefusedPluginIsNotRecorded) {
  WritePlugin("net.json", Description(R"(["x"])", "[]", true, "1"));
  LoadFiltered("net.json");
  EXPECT_THAT(runOnce_, IsEmpty());
}

TEST_F(PluginFilterTest, PluginNotRunOnceLeavesTheSetAlone) {
  WritePlugin("net.json", Description("[]", "[]", false, "1"));
  runOnce_ = {"net1"};
  EXPECT_EQ(LoadFiltered("net.json"), "");
  EXPECT_THAT(runOnce_, ElementsAre("net1"));
  EXPECT_EQ(plugins_.List().front()->State(), NodeState::Idle);
}

TEST(RunOnceKeyTest, CleaningKeepsLettersDigitsAndDashDotUnderscorePlus) {
  EXPECT_EQ(CleanRunOnceKey("net1.0 beta"), "net1.0beta");
  EXPECT_EQ(CleanRunOnceKey("a-b.c_d+e"), "a-b.c_d+e");
  EXPECT_EQ(CleanRunOnceKey("x,y;z/\t\n\"'=\xc3\xa9"), "xyz");
  EXPECT_EQ(CleanRunOnceKey(""), "");
}

TEST(RunOnceKeyTest, EveryByteIsKeptOrDroppedWhereverItStands) {
  const std::string kept = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._+";
  for (int value = 0; value < 256; ++value) {
    const char byte = static_cast<char>(value);
    const bool keeps = kept.find(byte) != std::string::npos;
    const std::string expected = keeps ? std::string{'a', byte, 'b', byte} : "ab";
    EXPECT_EQ(CleanRunOnceKey(std::string{'a', byte, 'b', byte}), expected) << "byte " << value;
    EXPECT_EQ(CleanRunOnceKey(std::string(1, byte)), keeps ? std::string(1, byte) : "")
        << "byte " << value;
  }
}

TEST_F(PluginFilterTest, RepeatedJsonNameIsConstructedAndAppendedTwice) {
  WritePlugin("a.json", Description());
  EXPECT_EQ(EnumerateFiltered({"a.json", "a.json"}), "");
  ASSERT_THAT(Names(), ElementsAre("a", "a"));
  EXPECT_NE(plugins_.List()[0], plugins_.List()[1]);
}

TEST_F(PluginFilterTest, EmptyDirectoryWithoutDebugConfigurationGivesNoPlugins) {
  EXPECT_EQ(EnumerateFiltered({}), "");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, DirectoryWalkLoadsEveryEntryInTheFileSystemsOrderThenTheDebugEntries) {
  WritePlugin("b.json", Description());
  WritePlugin("a.json", Description());
  WritePlugin("c.json", Description());
  WritePlugin("d.json", Description());
  WritePlugin("README", "");
  WriteDebugConfiguration("inj:::echo inj\n");
  std::vector<std::string> expected;
  for (const auto& entry : std::filesystem::directory_iterator(options_.pluginDirectory)) {
    const std::string fileName = entry.path().filename().string();
    if (fileName != "README") expected.push_back(fileName.substr(0, fileName.size() - 5));
  }
  expected.push_back("inj");
  EXPECT_EQ(EnumerateFiltered({}), "ignoring plugin 'README' of unspecified type...\n");
  EXPECT_EQ(Names(), expected);
}

TEST_F(PluginFilterTest, DebugPluginsOfTheDirectoryRunPassNoFilter) {
  WriteDebugConfiguration("net:::echo net\n");
  WritePlugin("net.debug", "");
  disabled_ = {"net"};
  bootFlags_ = {"anything"};
  EnumerateFiltered({});
  // One from the walk's net.debug, one from the configuration itself.
  EXPECT_THAT(Names(), ElementsAre("net", "net"));
}

TEST_F(PluginFilterTest, DebugNameInThePluginListPassesNoFilter) {
  WriteDebugConfiguration("net:::echo net\n");
  disabled_ = {"net"};
  EXPECT_EQ(EnumerateFiltered({"net.debug"}), "");
  EXPECT_THAT(Names(), ElementsAre("net"));
}

TEST_F(PluginFilterTest, PluginListLoadsNothingElseFromTheDirectoryOrTheConfiguration) {
  WritePlugin("a.json", Description());
  WritePlugin("b.json", Description());
  WriteDebugConfiguration("inj:::echo inj\n");
  EnumerateFiltered({"b.json"});
  EXPECT_THAT(Names(), ElementsAre("b"));
}

TEST_F(PluginFilterTest, SubdirectoriesFallUnderTheTypeRulesLikeAnyName) {
  std::filesystem::create_directory(std::filesystem::path(options_.pluginDirectory) / "sub");
  std::filesystem::create_directory(std::filesystem::path(options_.pluginDirectory) / "dir.json");
  std::string logged = EnumerateFiltered({});
  EXPECT_THAT(logged, HasSubstr("ignoring plugin 'sub' of unspecified type...\n"));
  ASSERT_THAT(alerts_, SizeIs(1));
  EXPECT_THAT(alerts_[0], StartsWith("exception occurred whilst loading plugin dir.json: "));
  EXPECT_THAT(logged, HasSubstr(alerts_[0] + "\n"));
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, DanglingSymlinkIsALoadFailureAndTheWalkGoesOn) {
  std::filesystem::create_symlink(directory_ / "gone.json",
                                  std::filesystem::path(options_.pluginDirectory) / "x.json");
  WritePlugin("y.json", Description());
  EnumerateFiltered({});
  ASSERT_THAT(alerts_, SizeIs(1));
  EXPECT_THAT(alerts_[0], StartsWith("exception occurred whilst loading plugin x.json: "));
  EXPECT_THAT(Names(), ElementsAre("y"));
}

TEST_F(PluginFilterTest, BrokenDescriptionIsReportedWithItsReason) {
  WritePlugin("bad.json", R"({"metadata": {"version": 9}})");
  std::string logged = LoadFiltered("bad.json");
  ASSERT_THAT(alerts_, SizeIs(1));
  EXPECT_THAT(alerts_[0], StartsWith("exception occurred whilst loading plugin bad.json: "));
  EXPECT_THAT(alerts_[0], HasSubstr("Unsupported API version"));
  EXPECT_EQ(logged, alerts_[0] + "\n");
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

TEST_F(PluginFilterTest, UnreadableDescriptionIsALoadFailure) {
  WritePlugin("locked.json", Description());
  std::filesystem::permissions(std::filesystem::path(options_.pluginDirectory) / "locked.json",
                               std::filesystem::perms::none);
  // Root reads files whatever their mode, so the load runs in a child that
  // has given up root for the unprivileged "nobody".
  constexpr uid_t kNobody = 65534;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0) {
      ::_exit(2);
    }
    LoadFiltered("locked.json");
    const bool reported =
        alerts_.size() == 1 &&
        alerts_[0].starts_with("exception occurred whilst loading plugin locked.json: ");
    ::_exit(reported && plugins_.List().empty() ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: could not become nobody; 1: not reported as a failure";
}

TEST_F(PluginFilterTest, NamesWithALineEndOrBytesThatAreNotUTF8LoadAsTheyAre) {
  const std::string newline = "two\nlines";
  const std::string latin1 = "caf\xe9\xff";
  WritePlugin(newline + ".json", Description());
  WritePlugin(latin1 + ".json", Description());
  WritePlugin(latin1 + ".txt", "");
  std::string logged = EnumerateFiltered({});
  EXPECT_THAT(Names(), UnorderedElementsAre(newline, latin1));
  EXPECT_THAT(logged, HasSubstr("ignoring plugin '" + latin1 + ".txt' of unknown type (txt)...\n"));
}

TEST_F(PluginFilterTest, MissingPluginDirectoryThrowsNamingTheDirectoryAndTheReason) {
  options_.pluginDirectory = (directory_ / "absent").string();
  WriteDebugConfiguration("inj:::echo inj\n");
  try {
    EnumerateFiltered({});
    ADD_FAILURE() << "the walk of a missing directory did not throw";
  } catch (const std::filesystem::filesystem_error& error) {
    ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(error.what(), HasSubstr(options_.pluginDirectory));
    EXPECT_THAT(error.what(), HasSubstr("No such file or directory"));
  }
  EXPECT_THAT(plugins_.List(), IsEmpty());
}

// Files deleted while the directory is walked: each is either loaded or
// reported as a load failure; the walk itself never fails.
TEST_F(PluginFilterTest, FilesVanishingDuringTheWalkAreLoadedOrReported) {
  constexpr int kFiles = 3000;
  const std::filesystem::path pluginDirectory = options_.pluginDirectory;
  for (int index = 0; index < kFiles; ++index) {
    WritePlugin("p" + std::to_string(index) + ".json", Description());
  }
  std::atomic<bool> started = false;
  std::thread deleter([&] {
    started = true;
    for (int index = kFiles - 1; index >= 0; --index) {
      std::filesystem::remove(pluginDirectory / ("p" + std::to_string(index) + ".json"));
    }
  });
  while (!started) std::this_thread::yield();
  EXPECT_NO_THROW(EnumerateFiltered({}));
  deleter.join();
  std::set<std::string> loaded;
  for (Plugin* plugin : plugins_.List()) {
    EXPECT_THAT(plugin->Name(), MatchesRegex("p[0-9]+"));
    EXPECT_TRUE(loaded.insert(plugin->Name()).second) << plugin->Name() << " loaded twice";
  }
  for (const std::string& alert : alerts_) {
    EXPECT_THAT(alert, MatchesRegex("exception occurred whilst loading plugin p[0-9]+\\.json: .*"));
  }
  EXPECT_LE(loaded.size() + alerts_.size(), static_cast<std::size_t>(kFiles));
  std::cout << "walk under deletion: " << loaded.size() << " loaded, " << alerts_.size()
            << " vanished between listing and loading\n";
}

}  // namespace
}  // namespace orvane
