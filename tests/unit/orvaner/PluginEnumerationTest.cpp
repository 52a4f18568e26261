#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"
#include "log/Log.h"
#include "orvaner/DebugPlugin.h"
#include "orvaner/LoadedPlugins.h"
#include "orvaner/PluginEnumeration.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// The debug configurations here name no barriers, so the plugins stay out
/// of the process-wide barrier registry and may be destroyed with the test.
class PluginEnumerationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    debugConfiguration_ = (directory_ / "debug.conf").string();
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
    LoadPlugin(fileName, plugins_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  std::string Enumerate(const std::vector<std::string>& names) {
    ::testing::internal::CaptureStderr();
    EnumeratePlugins(names, plugins_, debugConfiguration_);
    return ::testing::internal::GetCapturedStderr();
  }

  unit_testing::TemporaryDirectory temporary_;
  const std::filesystem::path& directory_ = temporary_.Path();
  std::string debugConfiguration_;
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

}  // namespace
}  // namespace orvane
