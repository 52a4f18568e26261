#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "GraphTestSupport.h"
#include "orvaner/plugins/LoadedPlugins.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LoadedPluginsTest : public ::testing::Test {
 protected:
  std::unique_ptr<Plugin> Make(const std::string& name) {
    return std::make_unique<RecordingPlugin>(name, runLog);
  }

  /// The names of the plugins listed, in order.
  static std::vector<std::string> Listed(const LoadedPlugins& plugins) {
    std::vector<std::string> names;
    for (const Plugin* plugin : plugins.List()) names.push_back(plugin->Name());
    return names;
  }

  /// What the load log holds, one text per entry.
  static std::vector<std::string> Logged(const LoadedPlugins& plugins) {
    std::vector<std::string> entries;
    for (const LoadedPlugins::LoadEntry& entry : plugins.LoadLog()) {
      entries.push_back(entry.refused
                            ? "refused " + entry.name + " of " + entry.source + ": " + entry.reason
                            : entry.plugin->Name() + " from " + entry.source);
    }
    return entries;
  }

  RunLog runLog;
};

TEST_F(LoadedPluginsTest, PluginsAndRefusalsAreLoggedInTheOrderTheyCame) {
  LoadedPlugins plugins;
  plugins.Append(Make("a"), "a.json");
  plugins.Refuse("b.json", "b", "due to blacklist");
  plugins.Append(Make("c"), "c.json");
  EXPECT_THAT(Listed(plugins), ElementsAre("a", "c"));
  EXPECT_THAT(Logged(plugins), ElementsAre("a from a.json", "refused b of b.json: due to blacklist",
                                           "c from c.json"));
}

TEST_F(LoadedPluginsTest, HandingOverToAnEmptyListGivesItEverythingAndEmptiesTheOther) {
  LoadedPlugins enumerated;
  enumerated.Append(Make("a"), "a.json");
  enumerated.Refuse("b.json", "b", "due to blacklist");
  enumerated.Append(Make("c"), "c.json");
  LoadedPlugins run;
  run.Append(std::move(enumerated));
  EXPECT_THAT(Listed(run), ElementsAre("a", "c"));
  EXPECT_THAT(Logged(run), ElementsAre("a from a.json", "refused b of b.json: due to blacklist",
                                       "c from c.json"));
  EXPECT_THAT(enumerated.List(), IsEmpty());
  EXPECT_THAT(enumerated.LoadLog(), IsEmpty());
}

TEST_F(LoadedPluginsTest, HandingOverToAListThatHasPluginsAppendsAfterThem) {
  LoadedPlugins run;
  run.Append(Make("first"), "first.json");
  LoadedPlugins enumerated;
  enumerated.Append(Make("a"), "a.json");
  enumerated.Refuse("b.json", "b", "why");
  run.Append(std::move(enumerated));
  EXPECT_THAT(Listed(run), ElementsAre("first", "a"));
  EXPECT_THAT(Logged(run),
              ElementsAre("first from first.json", "a from a.json", "refused b of b.json: why"));
  EXPECT_THAT(enumerated.List(), IsEmpty());
  EXPECT_THAT(enumerated.LoadLog(), IsEmpty());
}

TEST_F(LoadedPluginsTest, KeptPluginsStayAliveWithoutBeingListed) {
  LoadedPlugins run;
  run.Append(Make("listed"), "listed.json");
  LoadedPlugins failed;
  failed.Append(Make("half"), "half.json");
  std::unique_ptr<Plugin> kept = Make("kept");
  const Plugin* keptPlugin = kept.get();
  failed.Keep(std::move(kept));
  run.Keep(std::move(failed));
  EXPECT_THAT(Listed(run), ElementsAre("listed"));
  EXPECT_THAT(Logged(run), ElementsAre("listed from listed.json"));
  // Still owned, so still alive: its name can be read.
  EXPECT_EQ(keptPlugin->Name(), "kept");
  EXPECT_THAT(failed.List(), IsEmpty());

  LoadedPlugins empty;
  LoadedPlugins other;
  other.Keep(Make("only"));
  empty.Keep(std::move(other));
  EXPECT_THAT(empty.List(), IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
