// Records written by orvane's own writer during a real pass through the
// executor, read back by orvane-analyze: what one writes, the other reads,
// for an ended run and for a run that hangs while it is read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <chrono>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "analyze/Blame.h"
#include "analyze/CriticalChain.h"
#include "analyze/RecordReader.h"
#include "analyze/Status.h"
#include "analyze/Trace.h"
#include "orvaner/RunRecordTestSupport.h"

namespace orvane::analyze::testing {
namespace {

using ::testing::HasSubstr;

using orvane::testing::ScriptedPlugin;

class WrittenRecordTest : public orvane::testing::RecordedRunTest {
 protected:
  void Open() {
    OpenRecord();
    ASSERT_FALSE(record_.Path().empty());
  }

  /// The example run: network (slow) releases firewall, which fails;
  /// sshd waits for storage and firewall; "once" was already run.
  void AddExampleRun() {
    Add("storage", {}, {"disks"});
    Add("network", {}, {"net"}).onStart = [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    };
    plugins_.Refuse("broken.json", "broken", "plugin `broken.json' is invalid");
    Add("firewall", {"net"}, {"fw"}).onStart = [] { throw std::runtime_error("disk on fire"); };
    Add("sshd", {"disks", "fw"}, {});
    Add("once", {}, {}).MarkDone();
  }
};

TEST_F(WrittenRecordTest, EndedRunReadsWithEveryFact) {
  AddExampleRun();
  Open();
  Pass();
  record_.End(1);
  // Through the link to the newest record, as orvane-analyze reads by default.
  const Record record = ReadRecord(directory_ / "last.jsonl");
  EXPECT_EQ(record.header.mode, "plain");
  EXPECT_EQ(record.header.startMicroseconds, 1764000000123456);
  ASSERT_TRUE(record.end);
  EXPECT_EQ(record.end->status, 1);
  ASSERT_EQ(record.refused.size(), 1u);
  EXPECT_EQ(record.refused[0].name, "broken");

  std::size_t plugins = 0;
  for (const Vertex& vertex : record.vertices) {
    plugins += vertex.isPlugin ? 1 : 0;
    EXPECT_EQ(vertex.State(), VertexState::kDone) << vertex.name;
  }
  EXPECT_EQ(plugins, 5u);
  const Vertex& firewall = record.vertices[record.PluginsNamed("firewall").at(0)];
  EXPECT_EQ(firewall.outcome, "failed");
  EXPECT_EQ(firewall.reason, "disk on fire");
  const Vertex& once = record.vertices[record.PluginsNamed("once").at(0)];
  EXPECT_TRUE(once.alreadyRun);
  EXPECT_FALSE(once.start);

  const std::vector<BlameEntry> blame = Blame(record);
  ASSERT_EQ(blame.size(), 4u);  // "once" never starts
  EXPECT_EQ(record.vertices[blame[0].vertex].name, "network");
  EXPECT_GE(blame[0].microseconds, 20000);

  std::vector<std::string> chain;
  for (const ChainLink& link : CriticalChain(record, record.PluginsNamed("sshd").at(0))) {
    chain.push_back(record.vertices[link.vertex].name);
  }
  EXPECT_EQ(chain, (std::vector<std::string>{"sshd", "fw", "firewall", "net", "network"}));

  std::ostringstream trace;
  WriteTrace(record, trace);
  const boost::json::value parsed = boost::json::parse(trace.str());
  std::size_t complete = 0;
  for (const boost::json::value& event : parsed.at("traceEvents").as_array()) {
    complete += event.at("ph") == "X" ? 1 : 0;
  }
  EXPECT_EQ(complete, 4u);
}

TEST_F(WrittenRecordTest, HangingRunIsShownWhileItHangs) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  Add("hang", {}, {"stuck"}).onStart = [released] { released.wait(); };
  Add("after", {"stuck"}, {});
  Add("free", {}, {});
  Open();
  std::thread pass([this] { Pass(); });

  // Wait, at most ten seconds, for the record to show hang's start and
  // free's finish (free runs beside hang on the other worker).
  const Record* live = nullptr;
  Record record;
  for (int attempt = 0; attempt < 1000 && live == nullptr; ++attempt) {
    record = ReadRecord(record_.Path());
    const std::vector<std::size_t> hang = record.PluginsNamed("hang");
    const std::vector<std::size_t> free = record.PluginsNamed("free");
    if (!hang.empty() && record.vertices[hang[0]].start && !free.empty() &&
        record.vertices[free[0]].finish) {
      live = &record;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  std::ostringstream status;
  if (live != nullptr) {
    // Five seconds after the run's start, as the header gives it.
    WriteStatus(*live, record.header.startMicroseconds + 5'000'000, false, status);
  }
  release.set_value();
  pass.join();
  record_.End(0);

  ASSERT_NE(live, nullptr) << "the record never showed hang's start and free's finish";
  EXPECT_TRUE(record.Live());
  EXPECT_THAT(status.str(), HasSubstr("has not ended: 5.000s since its start.\n"));
  EXPECT_THAT(status.str(), HasSubstr("Running (1):\n"));
  EXPECT_THAT(status.str(), HasSubstr("  hang (plugin, worker "));
  EXPECT_THAT(status.str(), HasSubstr("Waiting (1):\n  after (plugin)\n"
                                      "    stuck (barrier): provided by hang (plugin) running "));
  EXPECT_THAT(status.str(), HasSubstr("    held by hang running "));

  // Once ended, the same record says so.
  std::ostringstream ended;
  WriteStatus(ReadRecord(record_.Path()), 0, false, ended);
  EXPECT_THAT(ended.str(), HasSubstr(" with status 0.\n"));
}

}  // namespace
}  // namespace orvane::analyze::testing
