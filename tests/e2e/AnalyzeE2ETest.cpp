// The installed orvane-analyze on records that the installed orvane wrote in
// the sandbox: every command on a boot of the example host, the live status
// of a boot that a sleeping plugin holds, and verify on a plugin set that
// would fail or hang.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "HostPaths.h"
#include "OrvaneRunTest.h"
#include "OutputText.h"
#include "PngImage.h"
#include "Sandbox.h"
#include "SandboxGTest.h"

namespace orvane::testing {
namespace {

namespace json = boost::json;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAreArray;

/// The plugins of the example host: its JSON files, its native plugin and
/// its debug injections. maintenance.json needs a boot flag and stays out.
const std::vector<std::string> kExamplePlugins = {"storage",          "firstboot",     "firewall",
                                                  "services",         "example",       "report",
                                                  "missing-provider", "settle-storage"};

class AnalyzeE2E : public OrvaneRunTest {
 protected:
  /// Lays every file of the example host over the sandbox's "/", with its
  /// mode, and the example native plugin into the plugin directory.
  void InstallExampleHost() {
    const std::filesystem::path host = ORVANE_EXAMPLE_HOST;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(host)) {
      if (!entry.is_regular_file()) continue;
      struct stat status {};
      ASSERT_EQ(::stat(entry.path().c_str(), &status), 0) << entry.path();
      sandbox_->CopyIn(entry.path(), "/" / entry.path().lexically_relative(host),
                       status.st_mode & 07777);
    }
    sandbox_->CopyIn(ORVANE_EXAMPLE_NATIVE, PluginFile("libexample.so"));
  }

  /// Boots the sandbox as the main job does.
  void BootExampleHost() {
    InstallExampleHost();
    if (sandbox_->Exists(kExecutorSocket)) sandbox_->Remove(kExecutorSocket);
    const RunResult boot = Orvane({"--init", "--parallel"});
    ASSERT_EQ(boot.exitStatus, 0) << boot.out << boot.err;
    ASSERT_TRUE(sandbox_->Exists(kLastRecord));
  }

  /// Runs the installed orvane-analyze with @p arguments.
  RunResult Analyze(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kAnalyze);
    RunResult result = sandbox_->Run(arguments);
    EXPECT_FALSE(result.timedOut);
    return result;
  }

  /// Runs @p arguments with --json and parses what it printed.
  json::value AnalyzeJson(std::vector<std::string> arguments, int expectedStatus = 0) {
    arguments.insert(arguments.begin(), "--json");
    const RunResult result = Analyze(arguments);
    EXPECT_EQ(result.exitStatus, expectedStatus) << result.err;
    EXPECT_THAT(result.err, IsEmpty());
    return json::parse(result.out);
  }

  /// The names of the entries of @p array (each an object with "name").
  static std::vector<std::string> Names(const json::value& array) {
    std::vector<std::string> names;
    for (const json::value& entry : array.as_array()) {
      names.emplace_back(entry.at("name").as_string());
    }
    return names;
  }
};

TEST_F(AnalyzeE2E, BlameListsEveryPluginOfTheBootLongestFirst) {
  BootExampleHost();
  const RunResult text = Analyze({"blame"});
  EXPECT_EQ(text.exitStatus, 0) << text.err;
  for (const std::string& plugin : kExamplePlugins) {
    EXPECT_THAT(text.out, HasSubstr(plugin)) << plugin;
  }
  // settle-storage sleeps 0.2 s; nothing else of the example host comes
  // near that.
  const std::vector<std::string> lines = Lines(text.out);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_THAT(lines[1],
              AllOf(HasSubstr("settle-storage"), HasSubstr("debug"), HasSubstr("activated")));

  const json::value report = AnalyzeJson({"blame"});
  const json::array& plugins = report.at("plugins").as_array();
  EXPECT_THAT(Names(plugins), UnorderedElementsAreArray(kExamplePlugins));
  EXPECT_EQ(plugins[0].at("name"), "settle-storage");
  for (std::size_t index = 1; index < plugins.size(); ++index) {
    EXPECT_GE(plugins[index - 1].at("microseconds").as_int64(),
              plugins[index].at("microseconds").as_int64());
    EXPECT_EQ(plugins[index].at("outcome"), "activated");
  }
}

TEST_F(AnalyzeE2E, CriticalChainRunsBackFromTheReportThroughTheSlowStorage) {
  BootExampleHost();
  const RunResult text = Analyze({"critical-chain"});
  EXPECT_EQ(text.exitStatus, 0) << text.err;
  // report waits for storage-settled, which settle-storage provides after
  // the storage barrier that storage.json provides.
  const std::vector<std::string> expected = {"report", "storage-settled", "settle-storage",
                                             "storage", "storage"};
  std::vector<std::string> chain;
  const json::value report = AnalyzeJson({"critical-chain"});
  for (const json::value& link : report.at("chain").as_array()) {
    chain.emplace_back(link.at("name").as_string());
  }
  EXPECT_EQ(chain, expected);
  EXPECT_THAT(text.out, HasSubstr("report @"));
  EXPECT_THAT(text.out, HasSubstr("settle-storage @"));

  const RunResult ofOne = Analyze({"critical-chain", "settle-storage"});
  EXPECT_EQ(ofOne.exitStatus, 0) << ofOne.err;
  EXPECT_THAT(ofOne.out, HasSubstr("settle-storage @"));
  EXPECT_THAT(ofOne.out, Not(HasSubstr("report @")));
}

TEST_F(AnalyzeE2E, PlotIsAnSvgThatARealRendererDraws) {
  BootExampleHost();
  const RunResult result =
      sandbox_->Run({"/bin/sh", "-c",
                     std::string(kAnalyze) + " plot > /tmp/boot.svg && rsvg-convert -o "
                                             "/tmp/boot.png /tmp/boot.svg"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const std::string svg = sandbox_->ReadFile("/tmp/boot.svg");
  EXPECT_THAT(svg, StartsWith("<?xml"));
  for (const std::string& plugin : kExamplePlugins) {
    EXPECT_THAT(svg, HasSubstr(">" + plugin + "</text>")) << plugin;
  }

  const analyze::testing::PngImage image(sandbox_->ReadFile("/tmp/boot.png"));
  std::set<analyze::testing::Rgb> colours;
  std::size_t drawn = 0;
  const analyze::testing::Rgb white{255, 255, 255};
  for (std::uint32_t y = 0; y < image.Height(); ++y) {
    for (std::uint32_t x = 0; x < image.Width(); ++x) {
      colours.insert(image.At(x, y));
      drawn += image.At(x, y) == white ? 0 : 1;
    }
  }
  // Bars of three kinds, text, the axis: far from one colour, and more than
  // a few stray pixels.
  EXPECT_GT(colours.size(), 20u);
  EXPECT_GT(drawn, static_cast<std::size_t>(image.Width()) * image.Height() / 20);
}

TEST_F(AnalyzeE2E, TraceIsJsonWithOneCompleteEventPerPlugin) {
  BootExampleHost();
  const RunResult result = Analyze({"trace"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const json::value trace = json::parse(result.out);
  std::map<std::string, int> complete;
  int instants = 0;
  for (const json::value& event : trace.at("traceEvents").as_array()) {
    const std::string phase(event.at("ph").as_string());
    if (phase == "X") ++complete[std::string(event.at("name").as_string())];
    if (phase == "i") ++instants;
  }
  std::map<std::string, int> once;
  for (const std::string& plugin : kExamplePlugins) once[plugin] = 1;
  EXPECT_EQ(complete, once);
  EXPECT_GT(instants, 0);  // the barriers that completed
}

TEST_F(AnalyzeE2E, CompareAggregateAndStatusOfTwoBoots) {
  BootExampleHost();
  const std::string first = "/tmp/first.jsonl";
  sandbox_->WriteFile(first, sandbox_->ReadFile(kLastRecord));
  if (sandbox_->Exists(kExecutorSocket)) sandbox_->Remove(kExecutorSocket);
  ASSERT_EQ(Orvane({"--init", "--parallel"}).exitStatus, 0);

  const RunResult compare = Analyze({"compare", first, kLastRecord});
  EXPECT_EQ(compare.exitStatus, 0) << compare.err;
  EXPECT_THAT(compare.out, HasSubstr("total: "));
  // The same plugins ran in both boots: none appeared or disappeared.
  const json::value compared = AnalyzeJson({"compare", first, kLastRecord});
  EXPECT_EQ(compared.at("old").at("status"), 0);
  EXPECT_EQ(compared.at("new").at("status"), 0);
  EXPECT_THAT(Names(compared.at("plugins")), UnorderedElementsAreArray(kExamplePlugins));
  for (const json::value& plugin : compared.at("plugins").as_array()) {
    EXPECT_FALSE(plugin.at("old").is_null()) << plugin;
    EXPECT_FALSE(plugin.at("new").is_null()) << plugin;
  }

  const json::value aggregated = AnalyzeJson({"aggregate", first, kLastRecord});
  EXPECT_EQ(aggregated.at("records").as_array().size(), 2u);
  for (const json::value& plugin : aggregated.at("plugins").as_array()) {
    EXPECT_EQ(plugin.at("count"), 2) << plugin;
    EXPECT_EQ(plugin.at("failed"), 0) << plugin;
  }
  EXPECT_THAT(Names(aggregated.at("plugins")), UnorderedElementsAreArray(kExamplePlugins));

  const RunResult status = Analyze({"status"});
  EXPECT_EQ(status.exitStatus, 0) << status.err;
  EXPECT_THAT(status.out, AllOf(HasSubstr("The init run of "), HasSubstr("with status 0")));
}

TEST_F(AnalyzeE2E, StatusOfABootHeldByASleepingPluginNamesWhatHoldsWhat) {
  // sleeper provides "slept", which "after" waits for.
  sandbox_->WriteFile(kDebugConfiguration,
                      "sleeper::slept:sleep 30\n"
                      "after:slept::true\n");
  // The boot runs in the background; once the sleeper has started, the
  // status is taken while it still sleeps. The sandbox's init ends the boot
  // with the shell.
  const std::string script = std::string(
                                 "/usr/bin/orvane >/dev/null 2>&1 &\n"
                                 "i=0\n"
                                 "while ! grep -q '\"type\":\"start\"' ") +
                             kLastRecord +
                             " 2>/dev/null; do\n"
                             "  i=$((i + 1)); [ $i -lt 600 ] || exit 9; sleep 0.05\n"
                             "done\n" +
                             kAnalyze + " status; echo \"exit $?\"\n" + kAnalyze +
                             " --json status > /tmp/status.json\n";
  const RunResult result = sandbox_->Run({"/bin/sh", "-c", script});
  ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("has not ended"));
  EXPECT_THAT(result.out, HasSubstr("Running (1):\n"));
  EXPECT_THAT(result.out, HasSubstr("sleeper (debug, worker"));
  EXPECT_THAT(result.out, HasSubstr("Waiting (1):\n"));
  EXPECT_THAT(result.out, HasSubstr("slept (barrier): provided by sleeper (debug) running"));
  EXPECT_THAT(result.out, HasSubstr("exit 0\n"));

  const json::value status = json::parse(sandbox_->ReadFile("/tmp/status.json"));
  EXPECT_EQ(status.at("live"), true);
  EXPECT_THAT(Names(status.at("running")), ElementsAre("sleeper"));
  EXPECT_THAT(Names(status.at("waiting")), ElementsAre("after"));
}

TEST_F(AnalyzeE2E, VerifyReportsEveryReasonATreeWouldFailOrHang) {
  const std::string root = "/tmp/tree";
  const std::string plugins = root + kPluginDirectory + "/";
  const auto description = [](const std::string& required, const std::string& provided,
                              const std::string& start) {
    return R"({"metadata": {"version": 1, "requires": )" + required + R"(, "provides": )" +
           provided + R"(}, "operations": {"start": )" + start + "}}";
  };
  sandbox_->WriteFile(plugins + "a.json", description(R"(["BAR2"])", R"(["BAR1"])", "[]"));
  sandbox_->WriteFile(plugins + "b.json", description(R"(["BAR1"])", R"(["BAR2"])", "[]"));
  sandbox_->WriteFile(plugins + "ntp.json", description(R"(["clock"])", "[]", "[]"));
  sandbox_->WriteFile(plugins + "broken.json", "{\"metadata\": ");
  sandbox_->WriteFile(plugins + "cli.json",
                      description("[]", "[]", R"(["test record --text hi", "test nosuch"])"));
  sandbox_->WriteFile(root + "/usr/lib/talvek/qorcli/test.json", R"({
  "commands": [
    {"path": ["test", "record"], "parameters": [{"name": "text", "required": true}],
     "exec": ["/bin/true", "{text}"]}
  ]
})");

  const RunResult text = Analyze({"verify", "--root", root});
  EXPECT_EQ(text.exitStatus, 1) << text.err;
  EXPECT_THAT(text.out, HasSubstr("a -> BAR1 -> b -> BAR2 -> a"));
  EXPECT_THAT(text.out, HasSubstr("barrier \"clock\""));
  EXPECT_THAT(text.out, HasSubstr("loading plugin broken.json"));
  EXPECT_THAT(text.out, HasSubstr("unknown command 'test nosuch'"));

  const json::value report = AnalyzeJson({"verify", "--root", root}, 1);
  std::multiset<std::string> kinds;
  for (const json::value& finding : report.at("failures").as_array()) {
    kinds.emplace(finding.at("kind").as_string());
  }
  EXPECT_EQ(kinds, (std::multiset<std::string>{"cycle", "missing-provider", "plugin-file",
                                               "command-line"}));

  // The example host itself is fine but for the plugin it ships on purpose
  // with a barrier nobody provides.
  InstallExampleHost();
  const json::value example = AnalyzeJson({"verify"}, 1);
  ASSERT_EQ(example.at("failures").as_array().size(), 1u);
  EXPECT_EQ(example.at("failures").as_array()[0].at("kind"), "missing-provider");
}

TEST_F(AnalyzeE2E, MissingOrTruncatedRecordIsOneLineAndStatusOne) {
  const RunResult missing = Analyze({"blame"});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_THAT(missing.out, IsEmpty());
  EXPECT_EQ(Lines(missing.err).size(), 1u) << missing.err;
  EXPECT_THAT(missing.err, HasSubstr(kLastRecord));

  BootExampleHost();
  const std::string record = sandbox_->ReadFile(kLastRecord);
  // Cut inside a line, as a kill while a line was written would leave it
  // were it not written whole.
  const std::size_t lineEnd = record.find('\n', record.size() / 2);
  ASSERT_NE(lineEnd, std::string::npos);
  sandbox_->WriteFile("/tmp/cut.jsonl", record.substr(0, lineEnd - 3));
  for (const char* command : {"blame", "critical-chain", "plot", "trace", "status"}) {
    const RunResult cut = Analyze({command, "-r", "/tmp/cut.jsonl"});
    EXPECT_EQ(cut.exitStatus, 1) << command;
    EXPECT_EQ(Lines(cut.err).size(), 1u) << command << ": " << cut.err;
    EXPECT_THAT(cut.err, HasSubstr("/tmp/cut.jsonl")) << command;
  }
  const RunResult usage = Analyze({"no-such-command"});
  EXPECT_EQ(usage.exitStatus, 2);
}

}  // namespace
}  // namespace orvane::testing
