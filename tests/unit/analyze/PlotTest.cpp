#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdlib>
#include <set>
#include <sstream>

#include "AnalyzeTestSupport.h"
#include "PngImage.h"
#include "TemporaryDirectory.h"
#include "analyze/Plot.h"

namespace orvane::analyze::testing {
namespace {

std::string Svg(const Record& record) {
  std::ostringstream out;
  WritePlot(record, false, out);
  return out.str();
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

bool Near(const Rgb& colour, const Rgb& wanted) {
  return std::abs(colour.red - wanted.red) <= 2 && std::abs(colour.green - wanted.green) <= 2 &&
         std::abs(colour.blue - wanted.blue) <= 2;
}

/// The boot chart of @p record rendered by rsvg-convert, the renderer of
/// Debian's librsvg2-bin, as a viewer would show it.
PngImage Rendered(const Record& record) {
  unit_testing::TemporaryDirectory directory;
  directory.Write("boot.svg", Svg(record));
  const std::string command = "rsvg-convert -o '" + (directory / "boot.png") + "' '" +
                              (directory / "boot.svg") + "' 2>'" + (directory / "errors") + "'";
  const int status = std::system(command.c_str());
  if (status != 0) {
    throw std::runtime_error("rsvg-convert failed (scripts/setup-deps installs it): " +
                             directory.Read("errors"));
  }
  return PngImage(directory.Read("boot.png"));
}

constexpr Rgb kWhite{255, 255, 255};
constexpr Rgb kJsonBlue{0x4e, 0x79, 0xa7};
constexpr Rgb kNativeOrange{0xf2, 0x8e, 0x2b};
constexpr Rgb kFailedRed{0xd6, 0x27, 0x28};

TEST(PlotTest, RowsArePluginsThatStartedInStartOrder) {
  const Record record = Parse(kExampleRecord);
  std::vector<std::string> names;
  for (const std::size_t index : PlotRows(record)) {
    names.push_back(record.vertices[index].name);
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"storage", "network", "debugshell", "firewall", "sshd"}));
}

TEST(PlotTest, SvgMarksFailuresWaitsAndTheCriticalChain) {
  const std::string svg = Svg(Parse(kExampleRecord));
  EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
  EXPECT_NE(svg.find("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"1260.0\" height=\"212.0\""),
            std::string::npos);
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
  // firewall's label and its time are marked failed, its bar outlined in red.
  EXPECT_NE(svg.find("class=\"failed-text\">firewall</text>"), std::string::npos);
  EXPECT_EQ(Count(svg, "class=\"bar failed\""), 2u);  // the bar and the legend's swatch
  EXPECT_NE(svg.find("8.000ms failed</text>"), std::string::npos);
  // Every plugin that waited between ready and start has a light bar.
  EXPECT_EQ(Count(svg, "class=\"bar wait\""), 5u + 1u);  // five rows and the legend
  // network, firewall and sshd are the chain: outlined and joined twice.
  EXPECT_EQ(Count(svg, "<rect class=\"critical\""), 3u);
  EXPECT_EQ(Count(svg, "<path class=\"chain\""), 2u);
  EXPECT_NE(svg.find("<title>firewall (json), ready @12.190ms, started @12.200ms, finished "
                     "@20.200ms: failed: firewall-&gt;start() failed: error while executing the "
                     "cli</title>"),
            std::string::npos);
}

TEST(PlotTest, NamesAreEscapedForXml) {
  const Record record = Parse(kHeaderLine +
                              R"({"type":"plugin","id":0,"name":"<b>&\"x\"","kind":"json"}
{"type":"start","t":0,"worker":0,"id":0}
{"type":"finish","t":10,"worker":0,"id":0,"outcome":"activated"}
)");
  const std::string svg = Svg(record);
  EXPECT_NE(svg.find("&lt;b&gt;&amp;&quot;x&quot;</text>"), std::string::npos);
  EXPECT_EQ(svg.find("<b>"), std::string::npos);
}

TEST(PlotTest, RenderedChartShowsTheBarsInTheirColours) {
  const PngImage image = Rendered(Parse(kExampleRecord));
  ASSERT_EQ(image.Width(), 1260u);
  ASSERT_EQ(image.Height(), 212u);
  std::set<Rgb> colours;
  std::size_t drawn = 0;
  for (std::uint32_t y = 0; y < image.Height(); ++y) {
    for (std::uint32_t x = 0; x < image.Width(); ++x) {
      colours.insert(image.At(x, y));
      drawn += image.At(x, y) == kWhite ? 0 : 1;
    }
  }
  EXPECT_GT(colours.size(), 20u);
  EXPECT_GT(drawn, image.Width() * image.Height() / 10);
  // Labels end at x 80, the time line runs from x 90 over 1000 pixels for
  // 24 ms; row r spans y 94 + 18r to 112 + 18r. firewall (row 3) runs from
  // 12.2 to 20.2 ms, network (row 1) from 0.16 to 12.16 ms.
  EXPECT_TRUE(Near(image.At(765, 157), kJsonBlue));
  EXPECT_TRUE(Near(image.At(346, 121), kNativeOrange));
  // firewall failed: the top edge of its bar is red.
  EXPECT_TRUE(Near(image.At(765, 150), kFailedRed));
  // Before any plugin starts the time line is empty.
  EXPECT_TRUE(Near(image.At(91, 103), kWhite));
}

TEST(PlotTest, RenderedChartOfALiveRecordIsNotBlank) {
  const PngImage image = Rendered(Parse(kLiveRecord));
  std::size_t orange = 0;
  for (std::uint32_t y = 0; y < image.Height(); ++y) {
    for (std::uint32_t x = 0; x < image.Width(); ++x) {
      orange += Near(image.At(x, y), kNativeOrange) ? 1 : 0;
    }
  }
  // network's bar fills most of a time line 12.2 ms long: some 980 x 12 pixels.
  EXPECT_GT(orange, 9000u);
}

TEST(PlotTest, ChartWithoutPluginsSaysSo) {
  const std::string svg = Svg(Parse(kHeaderLine + kExampleGraph));
  EXPECT_NE(svg.find(">No plugin has started.</text>"), std::string::npos);
  EXPECT_NO_THROW(Rendered(Parse(kHeaderLine + kExampleGraph)));
}

TEST(PlotTest, JsonHasTheRowsFacts) {
  std::ostringstream out;
  WritePlot(Parse(kExampleRecord), true, out);
  const boost::json::value report = boost::json::parse(out.str());
  EXPECT_EQ(report.at("microseconds"), 24000);
  const boost::json::array& plugins = report.at("plugins").as_array();
  ASSERT_EQ(plugins.size(), 5u);
  EXPECT_EQ(plugins[2].at("name"), "debugshell");
  EXPECT_EQ(plugins[2].at("ready"), 100);
  EXPECT_EQ(plugins[2].at("start"), 5200);
  EXPECT_EQ(plugins[2].at("critical"), false);
  EXPECT_EQ(plugins[3].at("outcome"), "failed");
  EXPECT_EQ(plugins[3].at("critical"), true);
}

}  // namespace
}  // namespace orvane::analyze::testing
