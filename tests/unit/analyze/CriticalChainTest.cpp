#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/CriticalChain.h"
#include "analyze/RecordError.h"

namespace orvane::analyze::testing {
namespace {

std::string Text(const Record& record, const std::string& plugin = {}) {
  std::ostringstream out;
  WriteCriticalChain(record, plugin, false, out);
  return out.str();
}

std::vector<std::string> Names(const Record& record, const std::vector<ChainLink>& chain) {
  std::vector<std::string> names;
  for (const ChainLink& link : chain) {
    names.push_back(record.vertices[link.vertex].name);
  }
  return names;
}

TEST(CriticalChainTest, RunEndsWithThePluginDoneLast) {
  const Record record = Parse(kExampleRecord);
  ASSERT_TRUE(LastCompleted(record));
  EXPECT_EQ(record.vertices[*LastCompleted(record)].name, "sshd");
}

TEST(CriticalChainTest, WalksBackThroughWhatEachWaitedForLast) {
  const Record record = Parse(kExampleRecord);
  const std::vector<ChainLink> chain = CriticalChain(record, IndexOf(record, "sshd"));
  // sshd waited for disks (done at 5.17 ms) and fw (20.22 ms): fw decided.
  EXPECT_EQ(Names(record, chain),
            (std::vector<std::string>{"sshd", "fw", "firewall", "net", "network"}));
  EXPECT_EQ(chain[0].ready, 20230);
  EXPECT_EQ(chain[0].took, 3000);
  EXPECT_EQ(chain[0].queued, 270);
  EXPECT_EQ(chain[1].ready, 20210);
  EXPECT_EQ(chain[1].took, 10);
  EXPECT_FALSE(chain[1].queued);
}

TEST(CriticalChainTest, TextOfTheRun) {
  EXPECT_EQ(Text(Parse(kExampleRecord)),
            "The time when each became ready is after \"@\", how long it took after \"+\".\n"
            "The run ended after 24.000ms with status 0.\n"
            "\n"
            "sshd @20.230ms +3.000ms (daemon, queued 270\xC2\xB5s)\n"
            " \xE2\x94\x94\xE2\x94\x80"
            "fw @20.210ms +10\xC2\xB5s (barrier)\n"
            " \xE2\x94\x94\xE2\x94\x80"
            "firewall @12.190ms +8.000ms (json, failed, queued 10\xC2\xB5s)\n"
            " \xE2\x94\x94\xE2\x94\x80"
            "net @12.170ms +10\xC2\xB5s (barrier)\n"
            " \xE2\x94\x94\xE2\x94\x80"
            "network @100\xC2\xB5s +12.000ms (native, queued 60\xC2\xB5s)\n");
}

TEST(CriticalChainTest, ChainOfOnePlugin) {
  EXPECT_EQ(Text(Parse(kExampleRecord), "storage"),
            "The time when each became ready is after \"@\", how long it took after \"+\".\n"
            "\n"
            "storage @100\xC2\xB5s +5.000ms (json, queued 50\xC2\xB5s)\n");
}

TEST(CriticalChainTest, PluginOfTwoWithOneNameIsTheOneDoneLast) {
  const Record record = Parse(kHeaderLine + R"({"type":"plugin","id":0,"name":"twice","kind":"json"}
{"type":"plugin","id":1,"name":"twice","kind":"json"}
{"type":"start","t":0,"worker":0,"id":0}
{"type":"start","t":0,"worker":1,"id":1}
{"type":"finish","t":50,"worker":1,"id":1,"outcome":"activated"}
{"type":"finish","t":90,"worker":0,"id":0,"outcome":"activated"}
)");
  EXPECT_EQ(ChainTarget(record, "twice"), 0u);
  EXPECT_FALSE(ChainTarget(record, "thrice"));
}

TEST(CriticalChainTest, UnknownPluginIsAnErrorNamingTheRecord) {
  try {
    Text(Parse(kExampleRecord), "nosuch");
    FAIL() << "an unknown plugin was followed";
  } catch (const RecordError& error) {
    EXPECT_STREQ(error.what(), "example.jsonl: no plugin named \"nosuch\"");
  }
}

TEST(CriticalChainTest, PluginNotReadyStillWaits) {
  const Record record = Parse(kLiveRecord);
  EXPECT_EQ(CriticalChain(record, IndexOf(record, "sshd")).size(), 1u);
  EXPECT_EQ(Text(record, "sshd"),
            "The time when each became ready is after \"@\", how long it took after \"+\".\n"
            "\n"
            "sshd (daemon, not ready)\n"
            "It still waits: orvane-analyze status shows for what.\n");
}

TEST(CriticalChainTest, LiveRunFollowsTheVertexDoneLastSoFar) {
  const std::string text = Text(Parse(kLiveRecord));
  EXPECT_NE(text.find("The run has not ended; its last event was at 12.200ms.\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nnet @12.170ms +10\xC2\xB5s (barrier)\n"), std::string::npos) << text;
}

TEST(CriticalChainTest, NothingDone) {
  EXPECT_NE(Text(Parse(kHeaderLine + kExampleGraph)).find("Nothing is done yet.\n"),
            std::string::npos);
}

TEST(CriticalChainTest, CycleInTheRecordDoesNotLoop) {
  // Two barriers that each claim the other as provider: not a graph orvane
  // runs, but a reader must not loop on it.
  const Record record =
      Parse(kHeaderLine + R"({"type":"barrier","id":0,"name":"a","kind":"init","requires":[1]}
{"type":"barrier","id":1,"name":"b","kind":"init","requires":[0]}
{"type":"ready","t":1,"id":0}
{"type":"barrier-done","t":2,"id":0}
{"type":"ready","t":3,"id":1}
{"type":"barrier-done","t":4,"id":1}
)");
  EXPECT_EQ(Names(record, CriticalChain(record, 1)), (std::vector<std::string>{"b", "a"}));
}

TEST(CriticalChainTest, JsonHasTheSameFacts) {
  std::ostringstream out;
  WriteCriticalChain(Parse(kExampleRecord), "", true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_TRUE(report.at("plugin").is_null());
  const boost::json::array& chain = report.at("chain").as_array();
  ASSERT_EQ(chain.size(), 5u);
  EXPECT_EQ(chain[0].at("name"), "sshd");
  EXPECT_EQ(chain[0].at("type"), "plugin");
  EXPECT_EQ(chain[0].at("ready"), 20230);
  EXPECT_EQ(chain[0].at("took"), 3000);
  EXPECT_EQ(chain[0].at("queued"), 270);
  EXPECT_EQ(chain[1].at("type"), "barrier");
  EXPECT_EQ(chain[2].at("outcome"), "failed");
}

}  // namespace
}  // namespace orvane::analyze::testing
