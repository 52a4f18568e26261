// The run record: its header and graph, the events of a real pass through
// the executor in the order they happened, its place among the older
// records, and a record that cannot be written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "RunRecordTestSupport.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

class RunRecordTest : public RecordedRunTest {
 protected:
  void SetUp() override {
    RecordedRunTest::SetUp();
    options_.randomSeed = 42;
    options_.pluginDirectory = "/plugins";
    state_.pluginFlags = {"b", "a"};
  }

  /// Opens the record, runs one start pass on two workers, ends with @p status.
  void Run(int status = 0) {
    OpenRecord();
    Pass();
    record_.End(status);
  }

  /// Every line of the record, parsed; a line that does not parse fails the test.
  std::vector<json::object> Lines() {
    std::vector<json::object> lines;
    std::ifstream file(record_.Path());
    for (std::string line; std::getline(file, line);) {
      json::value value = json::parse(line);
      EXPECT_TRUE(value.is_object()) << line;
      lines.push_back(value.as_object());
    }
    return lines;
  }

  static std::string Type(const json::object& line) {
    return std::string(line.at("type").as_string());
  }

  /// The lines of @p type, in order.
  std::vector<json::object> OfType(const std::string& type) {
    std::vector<json::object> found;
    for (const json::object& line : Lines()) {
      if (Type(line) == type) found.push_back(line);
    }
    return found;
  }

  /// The id the record gave the vertex named @p name of line type @p type.
  std::int64_t IdOf(const std::string& type, const std::string& name) {
    for (const json::object& line : OfType(type)) {
      if (line.at("name").as_string() == name) return line.at("id").as_int64();
    }
    ADD_FAILURE() << "no " << type << " named " << name;
    return -1;
  }

  /// "type id" of every event, in file order.
  std::vector<std::string> Events() {
    std::vector<std::string> events;
    for (const json::object& line : Lines()) {
      const std::string type = Type(line);
      if (type == "ready" || type == "start" || type == "finish" || type == "barrier-done") {
        events.push_back(type + " " + std::to_string(line.at("id").as_int64()));
      }
    }
    return events;
  }
};

TEST_F(RunRecordTest, RecordIsNamedAfterTheStartAndModeAndLinkedAsTheNewest) {
  Add("solo", {}, {});
  Run();
  EXPECT_EQ(record_.Path(), (directory_.Path() / "runs/20251124T160000Z-plain.jsonl").string());
  EXPECT_EQ(fs::read_symlink(directory_.Path() / "last.jsonl"),
            "runs/20251124T160000Z-plain.jsonl");
}

TEST_F(RunRecordTest, HeaderSaysTheModeTheOptionsTheStartAndTheHost) {
  Add("solo", {}, {});
  Run();
  const json::object header = Lines().front();
  EXPECT_EQ(Type(header), "header");
  EXPECT_EQ(header.at("schema").as_int64(), 1);
  EXPECT_EQ(header.at("mode").as_string(), "plain");
  EXPECT_EQ(header.at("start").as_string(), "2025-11-24T16:00:00.123456Z");
  EXPECT_EQ(header.at("startMicroseconds").as_int64(), 1764000000123456);
  const json::object& runOptions = header.at("options").as_object();
  EXPECT_TRUE(runOptions.at("parallel").as_bool());
  EXPECT_EQ(runOptions.at("threads").as_int64(), 2);
  EXPECT_EQ(runOptions.at("seed").as_int64(), 42);
  EXPECT_EQ(json::serialize(runOptions.at("pluginFlags")), R"(["a","b"])");
  EXPECT_EQ(header.at("pid").as_int64(), ::getpid());
  EXPECT_FALSE(header.at("host").as_string().empty());
}

TEST_F(RunRecordTest, GraphListsPluginsInLoadOrderWithRefusalsWhereMetThenBarriers) {
  Add("provider", {}, {"net"});
  plugins_.Refuse("broken.json", "broken",
                  "plugin `broken.json' is invalid: Unsupported API version");
  Add("consumer", {"net"}, {});
  Run();
  const std::vector<json::object> lines = Lines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(Type(lines[1]), "plugin");
  EXPECT_EQ(lines[1].at("name").as_string(), "provider");
  EXPECT_EQ(lines[1].at("file").as_string(), "/plugins/provider.json");
  EXPECT_EQ(Type(lines[2]), "refused");
  EXPECT_EQ(lines[2].at("reason").as_string(),
            "plugin `broken.json' is invalid: Unsupported API version");
  EXPECT_EQ(Type(lines[3]), "plugin");
  EXPECT_EQ(Type(lines[4]), "barrier");

  const std::int64_t net = IdOf("barrier", "net");
  const std::int64_t provider = IdOf("plugin", "provider");
  const std::int64_t consumer = IdOf("plugin", "consumer");
  EXPECT_EQ(json::serialize(lines[1].at("provides")), "[" + std::to_string(net) + "]");
  EXPECT_EQ(json::serialize(lines[3].at("requires")), "[" + std::to_string(net) + "]");
  EXPECT_EQ(json::serialize(lines[4].at("requires")), "[" + std::to_string(provider) + "]");
  EXPECT_EQ(json::serialize(lines[4].at("provides")), "[" + std::to_string(consumer) + "]");
  EXPECT_EQ(lines[4].at("kind").as_string(), "init");
}

TEST_F(RunRecordTest, EventsFollowTheDependencyOrder) {
  Add("provider", {}, {"net"});
  Add("consumer", {"net"}, {});
  Run();
  const std::string provider = std::to_string(IdOf("plugin", "provider"));
  const std::string consumer = std::to_string(IdOf("plugin", "consumer"));
  const std::string net = std::to_string(IdOf("barrier", "net"));
  EXPECT_THAT(Events(), ElementsAre("ready " + provider, "start " + provider, "finish " + provider,
                                    "ready " + net, "barrier-done " + net, "ready " + consumer,
                                    "start " + consumer, "finish " + consumer));
}

TEST_F(RunRecordTest, EventTimesNeverGoBackAndWorkersAreNamed) {
  for (int index = 0; index < 50; ++index) Add("p" + std::to_string(index), {}, {});
  Run();
  std::int64_t last = 0;
  for (const json::object& line : Lines()) {
    if (!line.contains("t")) continue;
    const std::int64_t time = line.at("t").as_int64();
    EXPECT_GE(time, last);
    last = time;
    if (Type(line) == "start" || Type(line) == "finish") {
      const std::int64_t worker = line.at("worker").as_int64();
      EXPECT_TRUE(worker == 0 || worker == 1) << worker;
    }
  }
}

// A plugin that never returns must be in the record as started: its start
// is in the file before its code runs.
TEST_F(RunRecordTest, StartIsInTheFileBeforeThePluginRuns) {
  ScriptedPlugin& first = Add("first", {}, {"b"});
  ScriptedPlugin& second = Add("second", {"b"}, {});
  std::vector<std::string> seenBySecond;
  second.onStart = [&] { seenBySecond = Events(); };
  first.onStart = [] {};
  Run();
  const std::string firstId = std::to_string(IdOf("plugin", "first"));
  const std::string secondId = std::to_string(IdOf("plugin", "second"));
  ASSERT_FALSE(seenBySecond.empty());
  EXPECT_EQ(seenBySecond.back(), "start " + secondId);
  // Every line before the start went with it.
  EXPECT_THAT(seenBySecond, ::testing::Contains("finish " + firstId));
}

// The lines after the last start reach the file by themselves, without the
// run's end: a status taken while the boot hangs elsewhere sees them.
TEST_F(RunRecordTest, LinesAfterTheLastStartFollowWithoutTheEnd) {
  Add("solo", {}, {});
  OpenRecord();
  Pass();
  const std::string done = "finish " + std::to_string(IdOf("plugin", "solo"));
  // A guard against a hang, far above the writer's interval.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::vector<std::string> events = Events();
  while ((events.empty() || events.back() != done) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(RunRecord::kFlushInterval);
    events = Events();
  }
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), done);
  EXPECT_NE(Type(Lines().back()), "end");
  record_.End(0);
  EXPECT_EQ(Type(Lines().back()), "end");
}

TEST_F(RunRecordTest, FailedActivationCarriesItsReason) {
  ScriptedPlugin& broken = Add("broken", {}, {});
  broken.onStart = [] { throw std::runtime_error("disk on fire"); };
  Run();
  const std::vector<json::object> finishes = OfType("finish");
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].at("outcome").as_string(), "failed");
  EXPECT_EQ(finishes[0].at("reason").as_string(), "disk on fire");
}

TEST_F(RunRecordTest, EndLineCarriesTheStatusLast) {
  Add("solo", {}, {});
  Run(1);
  const json::object end = Lines().back();
  EXPECT_EQ(Type(end), "end");
  EXPECT_EQ(end.at("status").as_int64(), 1);
  EXPECT_THAT(std::string(end.at("end").as_string()),
              ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T.*Z"));
}

TEST_F(RunRecordTest, AlreadyRunPluginIsMarkedAndHasNoEvents) {
  ScriptedPlugin& done = Add("done", {}, {});
  done.MarkDone();
  Run();
  const std::vector<json::object> pluginLines = OfType("plugin");
  ASSERT_EQ(pluginLines.size(), 1u);
  EXPECT_TRUE(pluginLines[0].at("alreadyRun").as_bool());
  EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(RunRecordTest, NamesAndReasonsAreEscapedIntoValidJson) {
  Add("quote\"back\\slash\ttab\x01", {}, {});
  plugins_.Refuse("x.json", "x", "line\nbreak");
  Run();
  const std::vector<json::object> pluginLines = OfType("plugin");
  ASSERT_EQ(pluginLines.size(), 1u);
  EXPECT_EQ(pluginLines[0].at("name").as_string(), "quote\"back\\slash\ttab\x01");
  EXPECT_EQ(OfType("refused")[0].at("reason").as_string(), "line\nbreak");
}

TEST_F(RunRecordTest, SecondRunInTheSameSecondGetsANameOfItsOwn) {
  Add("solo", {}, {});
  Run();
  RunRecord second;
  second.Open(options_, state_, plugins_, registry_.ListBarriers(), directory_.Path().string());
  second.End(0);
  EXPECT_EQ(second.Path(), (directory_.Path() / "runs/20251124T160000Z-plain-2.jsonl").string());
  EXPECT_EQ(fs::read_symlink(directory_.Path() / "last.jsonl"),
            "runs/20251124T160000Z-plain-2.jsonl");
}

TEST_F(RunRecordTest, OnlyTheNewestRecordsAreKept) {
  fs::create_directories(directory_.Path() / "runs");
  for (int day = 10; day < 35; ++day) {
    directory_.Write("runs/202501" + std::to_string(day) + "T000000Z-init.jsonl", "{}\n");
  }
  directory_.Write("runs/notes.txt", "not a record\n");
  Add("solo", {}, {});
  Run();
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory_.Path() / "runs")) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), RunRecord::kKeptRecords + 1);  // the notes stay
  EXPECT_EQ(names.front(), "20250116T000000Z-init.jsonl");
  EXPECT_EQ(names[names.size() - 2], "20251124T160000Z-plain.jsonl");
  EXPECT_EQ(names.back(), "notes.txt");
}

TEST_F(RunRecordTest, RecordThatCannotBeCreatedIsReportedOnceAndChangesNothing) {
  directory_.Write("runs", "a file where the directory should be");
  Add("solo", {}, {});
  ::testing::internal::CaptureStderr();
  Run();
  const std::string logged = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(logged, HasSubstr("unable to write the run record: "));
  EXPECT_EQ(record_.Path(), "");
  EXPECT_EQ(plugins_.List().front()->State(), NodeState::Started);
}

// A disk that fills up half-way through the run: the file-size limit makes
// the writes of this child fail after the first kilobyte.
TEST_F(RunRecordTest, RecordOnAFullDiskStopsAfterOneReportAndKeepsWholeLines) {
  for (int index = 0; index < 40; ++index) Add("plugin" + std::to_string(index), {}, {});
  const std::string logged = directory_ / "logged";
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1024, 1024};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || !std::freopen(logged.c_str(), "w", stderr)) {
      _exit(2);
    }
    Run();
    const bool allStarted =
        std::all_of(plugins_.List().begin(), plugins_.List().end(),
                    [](Plugin* plugin) { return plugin->State() == NodeState::Started; });
    std::fflush(stderr);
    _exit(allStarted ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the run did not go on";
  const std::string log = directory_.Read("logged");
  std::size_t reports = 0;
  for (std::size_t at = log.find("unable to write the run record"); at != std::string::npos;
       at = log.find("unable to write the run record", at + 1)) {
    ++reports;
  }
  EXPECT_EQ(reports, 1u) << log;
  const std::string record = directory_.Read("runs/20251124T160000Z-plain.jsonl");
  EXPECT_LE(record.size(), 1024u);
  ASSERT_FALSE(record.empty());
  EXPECT_EQ(record.back(), '\n') << "the last line was cut";
  for (const std::string& line : Split(record)) {
    EXPECT_NO_THROW(json::parse(line)) << line;
  }
}

}  // namespace
}  // namespace orvane::testing
