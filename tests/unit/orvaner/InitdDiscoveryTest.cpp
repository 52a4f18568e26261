// Discovery of the init.d daemons from a listing: which lines become
// plugins, in which order, with which names, and what bad lines cost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonTestSupport.h"
#include "FakeSpawner.h"
#include "GraphTestSupport.h"
#include "TemporaryDirectory.h"
#include "TestSeams.h"
#include "orvaner/Exception.h"
#include "orvaner/graph/BarrierRegistry.h"
#include "orvaner/graph/Executor.h"
#include "orvaner/graph/PriorityBarrier.h"
#include "orvaner/plugins/InitdDiscovery.h"
#include "orvaner/plugins/LegacyDaemonPlugin.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class InitdDiscoveryTest : public GraphTest {
 protected:
  /// Discovers the daemons of @p listing; keeps what was logged.
  std::vector<std::unique_ptr<Plugin>> Discover(const std::string& listing) {
    directory.Write("listing", listing);
    ::testing::internal::CaptureStderr();
    auto plugins = DiscoverInitdDaemons(registry, "cat " + (directory / "listing"));
    logged = ::testing::internal::GetCapturedStderr();
    return plugins;
  }

  static std::vector<std::string> Names(const std::vector<std::unique_ptr<Plugin>>& plugins) {
    std::vector<std::string> names;
    for (const auto& plugin : plugins) names.push_back(plugin->Name());
    return names;
  }

  static const LegacyDaemonPlugin& Legacy(const std::unique_ptr<Plugin>& plugin) {
    return dynamic_cast<const LegacyDaemonPlugin&>(*plugin);
  }

  unit_testing::TemporaryDirectory directory;
  BarrierRegistry registry;
  std::string logged;
};

TEST_F(InitdDiscoveryTest, TheListingCommandIsTheServiceToolsPriorityListing) {
  EXPECT_EQ(InitdListingCommand(), "/bin/chkconfig -p");
}

TEST_F(InitdDiscoveryTest, DaemonsComeInAscendingStartOrder) {
  auto plugins = Discover(
      "/etc/init.d/late 90\n"
      "/etc/init.d/early 5\n"
      "/etc/init.d/middle 40\n");
  EXPECT_THAT(Names(plugins), ElementsAre("early", "middle", "late"));
  EXPECT_EQ(Legacy(plugins[0]).Number(), 5);
  EXPECT_THAT(registry.PriorityList(), ElementsAre(5u, 40u, 90u));
}

TEST_F(InitdDiscoveryTest, ScriptsWithTheSameStartOrderKeepTheListingsOrder) {
  auto plugins = Discover(
      "/etc/init.d/zeta 20\n"
      "/etc/init.d/alpha 20\n"
      "/etc/init.d/first 10\n"
      "/etc/init.d/mid 20\n");
  EXPECT_THAT(Names(plugins), ElementsAre("first", "zeta", "alpha", "mid"));
}

TEST_F(InitdDiscoveryTest, SyslogAndEventDaemonsYieldNoPluginsWhateverTheirNumbers) {
  auto plugins = Discover(
      "/etc/init.d/wexd 1\n"
      "/etc/init.d/ntpd 50\n"
      "/etc/init.d/zelsyslogd 99\n"
      "/opt/other/wexd -3\n");
  EXPECT_THAT(Names(plugins), ElementsAre("ntpd"));
}

TEST_F(InitdDiscoveryTest, NameIsTheLastPathComponentAndCommandsUseTheWholeScript) {
  auto plugins = Discover("/etc/init.d/ntpd 30\nrelative 31\n");
  ASSERT_EQ(plugins.size(), 2u);
  const LegacyDaemonPlugin& ntpd = Legacy(plugins[0]);
  EXPECT_EQ(ntpd.Name(), "ntpd");
  EXPECT_EQ(ntpd.Operation(DaemonPlugin::kStartOperation), "/etc/init.d/ntpd start");
  EXPECT_EQ(ntpd.Operation(DaemonPlugin::kStopOperation), "/etc/init.d/ntpd stop");
  EXPECT_EQ(Legacy(plugins[1]).Name(), "relative");
}

TEST_F(InitdDiscoveryTest, LinesWithoutAStartOrderAreSkippedWithAWarning) {
  auto plugins = Discover(
      "garbage\n"
      "\n"
      "   \n"
      "/etc/init.d/named notanumber\n"
      "/etc/init.d/huge 99999999999\n"
      "/etc/init.d/good 12 trailing words\n"
      "\t/etc/init.d/tabbed\t13\n"
      "/etc/init.d/last 14");  // no line end
  EXPECT_THAT(Names(plugins), ElementsAre("good", "tabbed", "last"));
  EXPECT_THAT(logged, HasSubstr("ignoring init.d listing line without a start order: 'garbage'"));
  EXPECT_THAT(logged, HasSubstr("'/etc/init.d/named notanumber'"));
  EXPECT_THAT(logged, HasSubstr("'/etc/init.d/huge 99999999999'"));
}

TEST_F(InitdDiscoveryTest, DuplicateScriptIsKeptAndReported) {
  auto plugins = Discover("/etc/init.d/twice 10\n/etc/init.d/once 15\n/etc/init.d/twice 20\n");
  EXPECT_THAT(Names(plugins), ElementsAre("twice", "once", "twice"));
  EXPECT_THAT(logged, HasSubstr("init.d script /etc/init.d/twice is listed more than once"));
}

TEST_F(InitdDiscoveryTest, NegativeStartOrdersComeFirst) {
  auto plugins = Discover("/etc/init.d/positive 3\n/etc/init.d/negative -3\n");
  EXPECT_THAT(Names(plugins), ElementsAre("negative", "positive"));
}

TEST_F(InitdDiscoveryTest, ListingThatNeverEndsIsCutOffAndRefused) {
  // "yes" writes lines for ever; reading stops at the bound and closing the
  // pipe ends the program.
  try {
    DiscoverInitdDaemons(registry, "yes /etc/init.d/again 10");
    ADD_FAILURE() << "an endless listing was accepted";
  } catch (const Exception& error) {
    EXPECT_EQ(std::string(error.what()),
              "cannot use the init.d listing of 'yes /etc/init.d/again 10': larger than 1048576 "
              "bytes");
  }
}

TEST_F(InitdDiscoveryTest, EmptyListingOrFailingListingCommandYieldsNoPlugins) {
  EXPECT_THAT(Discover(""), IsEmpty());
  ::testing::internal::CaptureStderr();
  auto plugins = DiscoverInitdDaemons(registry, directory / "no-such-tool");
  ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(plugins, IsEmpty());
}

TEST_F(InitdDiscoveryTest, DiscoveredDaemonsStartLevelByLevel) {
  DaemonOptionsScope options(true, 5);
  RunOptions::Instance().method = "start";
  const std::string record = directory / "record";
  std::string listing;
  for (const auto& [name, order] :
       std::vector<std::pair<std::string, int>>{{"c", 30}, {"a", 10}, {"b", 20}, {"a2", 10}}) {
    listing += WriteScript(directory, name, "echo \"$1 " + name + "\" >> " + record) + " " +
               std::to_string(order) + "\n";
  }
  auto plugins = Discover(listing);
  const unit_testing::ScopedAlertLogSink silencedAlertLog([](const std::string&) {});
  ::testing::internal::CaptureStderr();
  {
    Executor executor(1, false);
    for (auto& plugin : plugins) plugin->ScheduleStart(executor);
    for (auto& plugin : plugins) plugin->WaitStarted();
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(directory.Read("record"), "start a\nstart a2\nstart b\nstart c\n");
}

// ---- the listing's outcomes, without processes

TEST_F(InitdDiscoveryTest, ListingThatCannotBeStartedThrowsAndCreatesNothing) {
  unit_testing::FakeSpawner spawner;
  spawner.shellOutput.started = false;
  try {
    DiscoverInitdDaemons(registry, "/bin/chkconfig -p");
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(), "Failed obtaining list of init.d scripts");
  }
  EXPECT_THAT(spawner.Calls(), ElementsAre("read /bin/chkconfig -p (at most 1048576)"));
}

TEST_F(InitdDiscoveryTest, ListingThatCannotBeReadIsRefusedWithTheReason) {
  unit_testing::FakeSpawner spawner;
  spawner.shellOutput.output.status = hostfile::ReadStatus::ReadFailed;
  spawner.shellOutput.output.error = EIO;
  try {
    DiscoverInitdDaemons(registry, "/bin/chkconfig -p");
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(),
                 "cannot use the init.d listing of '/bin/chkconfig -p': cannot be read: "
                 "Input/output error");
  }
}

TEST_F(InitdDiscoveryTest, ListingReadWithoutAProcessBecomesDaemonsInStartOrder) {
  unit_testing::FakeSpawner spawner;
  spawner.shellOutput.output.text = "/etc/init.d/b 20\n/etc/init.d/wexd 1\n/etc/init.d/a 10\n";
  ::testing::internal::CaptureStderr();
  auto plugins = DiscoverInitdDaemons(registry, "/bin/chkconfig -p");
  ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(Names(plugins), ElementsAre("a", "b"));
}

}  // namespace
}  // namespace orvane::testing
