#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "analyze/Status.h"

namespace orvane::analyze::testing {
namespace {

constexpr std::int64_t kFifteenSeconds = 15'000'000;

std::string Text(const Record& record, std::int64_t now) {
  std::ostringstream out;
  WriteStatus(record, now, false, out);
  return out.str();
}

/// A live run that hangs: "hang" runs; "middle" waits for barrier
/// "hung" that hang provides, "last" for "middle-done" that middle
/// provides; "queued" is ready without a free worker; "orphan" waits for a
/// barrier nobody provides; "left" and "right" wait for each other.
const std::string kHangingRecord =
    kHeaderLine + R"({"type":"plugin","id":0,"name":"hang","kind":"json","provides":[10]}
{"type":"plugin","id":1,"name":"middle","kind":"json","requires":[10],"provides":[11]}
{"type":"plugin","id":2,"name":"last","kind":"native","requires":[11,10]}
{"type":"plugin","id":3,"name":"queued","kind":"debug"}
{"type":"plugin","id":4,"name":"orphan","kind":"json","requires":[12]}
{"type":"plugin","id":5,"name":"left","kind":"json","requires":[13],"provides":[14]}
{"type":"plugin","id":6,"name":"right","kind":"json","requires":[14],"provides":[13]}
{"type":"barrier","id":10,"name":"hung","kind":"init","requires":[0],"provides":[1,2]}
{"type":"barrier","id":11,"name":"middle-done","kind":"init","requires":[1],"provides":[2]}
{"type":"barrier","id":12,"name":"nobody","kind":"init","requires":[],"provides":[4]}
{"type":"barrier","id":13,"name":"from-right","kind":"init","requires":[6],"provides":[5]}
{"type":"barrier","id":14,"name":"from-left","kind":"init","requires":[5],"provides":[6]}
{"type":"ready","t":10,"worker":-1,"id":0}
{"type":"ready","t":10,"worker":-1,"id":3}
{"type":"start","t":20,"worker":0,"id":0}
)";

TEST(StatusTest, LiveRunShowsWhatRunsAndWhatWaitsForIt) {
  EXPECT_EQ(Text(Parse(kLiveRecord), kExampleStart + kFifteenSeconds),
            "The plain run of 2026-11-24T15:14:00.123456Z on host1 (pid 1234) has not ended: "
            "15.000s since its start.\n"
            "\n"
            "Running (1):\n"
            "  14.987s  firewall (json, worker 1)\n"
            "\n"
            "Waiting (1):\n"
            "  sshd (daemon)\n"
            "    fw (barrier): provided by firewall (json) running 14.987s\n"
            "    held by firewall running 14.987s\n");
}

TEST(StatusTest, WaitsAreFollowedDownToThePluginThatHoldsThem) {
  EXPECT_EQ(Text(Parse(kHangingRecord), kExampleStart + 60'000'000),
            "The plain run of 2026-11-24T15:14:00.123456Z on host1 (pid 1234) has not ended: "
            "1min 0.000s since its start.\n"
            "\n"
            "Running (1):\n"
            "  59.999s  hang (json, worker 0)\n"
            "\n"
            "Waiting for a free worker (1):\n"
            "  59.999s  queued (debug)\n"
            "\n"
            "Waiting (5):\n"
            "  middle (json)\n"
            "    hung (barrier): provided by hang (json) running 59.999s\n"
            "    held by hang running 59.999s\n"
            "  last (native)\n"
            "    middle-done (barrier): provided by middle (json) waiting\n"
            "    hung (barrier): provided by hang (json) running 59.999s\n"
            "    held by hang running 59.999s\n"
            "  orphan (json)\n"
            "    nobody (barrier): provided by nobody\n"
            "    held by nothing running: a cycle, or a barrier nobody provides\n"
            "  left (json)\n"
            "    from-right (barrier): provided by right (json) waiting\n"
            "    held by nothing running: a cycle, or a barrier nobody provides\n"
            "  right (json)\n"
            "    from-left (barrier): provided by left (json) waiting\n"
            "    held by nothing running: a cycle, or a barrier nobody provides\n");
}

TEST(StatusTest, ClockBehindTheRecordCountsFromItsLastEvent) {
  const std::string text = Text(Parse(kLiveRecord), kExampleStart - 1);
  EXPECT_NE(text.find("has not ended: 12.200ms since its start.\n"), std::string::npos);
  EXPECT_NE(text.find("\n  0\xC2\xB5s  firewall (json, worker 1)\n"), std::string::npos) << text;
}

TEST(StatusTest, EndedRunSaysSoWithItsStatus) {
  EXPECT_EQ(Text(Parse(kExampleRecord), kExampleStart + kFifteenSeconds),
            "The plain run of 2026-11-24T15:14:00.123456Z ended at 2026-11-24T15:14:00.147456Z "
            "after 24.000ms with status 0.\n");
}

TEST(StatusTest, HoldersOfALongChainAreFoundWithoutDeepRecursion) {
  // plugin i waits for barrier i-1, which plugin i-1 provides; plugin 0 runs.
  constexpr int kLength = 100'000;
  std::string text = kHeaderLine;
  for (int index = 0; index < kLength; ++index) {
    text += R"({"type":"plugin","id":)" + std::to_string(index) + R"(,"name":"p)" +
            std::to_string(index) + R"(","kind":"json","requires":[)" +
            (index == 0 ? std::string() : std::to_string(kLength + index - 1)) + "]}\n";
  }
  for (int index = 0; index + 1 < kLength; ++index) {
    text += R"({"type":"barrier","id":)" + std::to_string(kLength + index) +
            R"(,"name":"b","kind":"init","requires":[)" + std::to_string(index) + "]}\n";
  }
  text += R"({"type":"ready","t":1,"id":0})"
          "\n"
          R"({"type":"start","t":2,"worker":0,"id":0})"
          "\n";
  const Record record = Parse(text);
  const std::vector<Holders> holders = FindHolders(record);
  ASSERT_EQ(holders[kLength - 1].plugins.size(), 1u);
  EXPECT_EQ(holders[kLength - 1].plugins[0], 0u);
  EXPECT_FALSE(holders[kLength - 1].more);
}

TEST(StatusTest, ManyHoldersAreCountedNotListed) {
  // "all" waits for one barrier that five running plugins provide.
  std::string text = kHeaderLine;
  for (int index = 0; index < 5; ++index) {
    text += R"({"type":"plugin","id":)" + std::to_string(index) + R"(,"name":"r)" +
            std::to_string(index) +
            R"(","kind":"json","provides":[9]})"
            "\n";
  }
  text += R"({"type":"plugin","id":5,"name":"all","kind":"json","requires":[9]})"
          "\n";
  text += R"({"type":"barrier","id":9,"name":"five","kind":"init","requires":[0,1,2,3,4]})"
          "\n";
  for (int index = 0; index < 5; ++index) {
    text += R"({"type":"start","t":1,"worker":)" + std::to_string(index) + R"(,"id":)" +
            std::to_string(index) + "}\n";
  }
  const std::string status = Text(Parse(text), kExampleStart + 1'000'001);
  EXPECT_NE(status.find("    five (barrier): provided by r0 (json) running 1.000s, r1 (json) "
                        "running 1.000s, r2 (json) running 1.000s and 2 more\n"),
            std::string::npos)
      << status;
  EXPECT_NE(status.find("    held by r0 running 1.000s, r1 running 1.000s, r2 running 1.000s "
                        "and more\n"),
            std::string::npos)
      << status;
}

TEST(StatusTest, JsonOfALiveRun) {
  std::ostringstream out;
  WriteStatus(Parse(kHangingRecord), kExampleStart + 60'000'000, true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("live"), true);
  EXPECT_EQ(report.at("elapsed"), 60'000'000);
  const boost::json::array& running = report.at("running").as_array();
  ASSERT_EQ(running.size(), 1u);
  EXPECT_EQ(running[0].at("name"), "hang");
  EXPECT_EQ(running[0].at("runningFor"), 59'999'980);
  EXPECT_EQ(report.at("queued").as_array()[0].at("name"), "queued");
  const boost::json::array& waiting = report.at("waiting").as_array();
  ASSERT_EQ(waiting.size(), 5u);
  const boost::json::value& last = waiting[1];
  EXPECT_EQ(last.at("name"), "last");
  ASSERT_EQ(last.at("waitsFor").as_array().size(), 2u);
  const boost::json::value& middleDone = last.at("waitsFor").as_array()[0];
  EXPECT_EQ(middleDone.at("name"), "middle-done");
  EXPECT_EQ(middleDone.at("providers").as_array()[0].at("name"), "middle");
  EXPECT_EQ(middleDone.at("providers").as_array()[0].at("state"), "waiting");
  EXPECT_EQ(last.at("heldBy").as_array()[0].at("name"), "hang");
  EXPECT_EQ(last.at("heldBy").as_array()[0].at("state"), "running");
  EXPECT_EQ(waiting[2].at("waitsFor").as_array()[0].at("providedByNobody"), true);
  EXPECT_TRUE(waiting[3].at("heldBy").as_array().empty());
}

TEST(StatusTest, JsonOfAnEndedRun) {
  std::ostringstream out;
  WriteStatus(Parse(kExampleRecord), kExampleStart, true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("live"), false);
  EXPECT_EQ(report.at("status"), 0);
  EXPECT_EQ(report.at("microseconds"), 24000);
}

}  // namespace
}  // namespace orvane::analyze::testing
