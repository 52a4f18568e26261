#include <gtest/gtest.h>

#include <sstream>

#include "analyze/Formatting.h"

namespace orvane::analyze::testing {
namespace {

TEST(FormattingTest, DurationsInTheUnitThatFits) {
  EXPECT_EQ(FormatDuration(0), "0\xC2\xB5s");
  EXPECT_EQ(FormatDuration(999), "999\xC2\xB5s");
  EXPECT_EQ(FormatDuration(1000), "1.000ms");
  EXPECT_EQ(FormatDuration(12345), "12.345ms");
  EXPECT_EQ(FormatDuration(999999), "999.999ms");
  EXPECT_EQ(FormatDuration(1234567), "1.234s");
  EXPECT_EQ(FormatDuration(59999999), "59.999s");
  EXPECT_EQ(FormatDuration(123456789), "2min 3.456s");
  EXPECT_EQ(FormatDuration(3600000000), "1h 0min 0.000s");
  EXPECT_EQ(FormatDuration(273906789000), "3d 4h 5min 6.789s");
  EXPECT_EQ(FormatDuration(-2500), "-2.500ms");
  EXPECT_EQ(FormatDuration(INT64_MIN), "-106751991d 4h 0min 54.775s");
}

TEST(FormattingTest, ChangesCarryTheirSign) {
  EXPECT_EQ(FormatChange(2500), "+2.500ms");
  EXPECT_EQ(FormatChange(-2500), "-2.500ms");
  EXPECT_EQ(FormatChange(0), "0\xC2\xB5s");
}

TEST(FormattingTest, TerminalTextEscapesControlAndInvalidBytes) {
  EXPECT_EQ(TerminalText("plain name"), "plain name");
  EXPECT_EQ(TerminalText("red\x1B[31m"), "red\\x1B[31m");
  EXPECT_EQ(TerminalText("line\nfeed"), "line\\x0Afeed");
  EXPECT_EQ(TerminalText("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(TerminalText("caf\xE9"), "caf\\xE9");
}

TEST(FormattingTest, ValidUtf8ReplacesEveryInvalidByte) {
  EXPECT_EQ(ValidUtf8("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(ValidUtf8("caf\xE9"), "caf\xEF\xBF\xBD");
  // An overlong slash and a surrogate are not UTF-8.
  EXPECT_EQ(ValidUtf8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(ValidUtf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(ValidUtf8("\xF0\x9F\x98\x80"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(ValidUtf8("cut\xF0\x9F"), "cut\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(FormattingTest, XmlTextEscapesMarkupAndReplacesForbiddenCharacters) {
  EXPECT_EQ(XmlText("a<b>&\"c'"), "a&lt;b&gt;&amp;&quot;c&apos;");
  EXPECT_EQ(XmlText("bell\x07"), "bell\xEF\xBF\xBD");
  EXPECT_EQ(XmlText("bad\xFF"), "bad\xEF\xBF\xBD");
}

TEST(FormattingTest, WidthCountsCharactersNotBytes) {
  EXPECT_EQ(DisplayWidth("caf\xC3\xA9"), 4u);
  EXPECT_EQ(FitWidth("short", 10), "short");
  EXPECT_EQ(FitWidth("a-very-long-plugin-name", 10), "a-very-lo\xE2\x80\xA6");
  EXPECT_EQ(DisplayWidth(FitWidth("\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9", 3)), 3u);
  EXPECT_EQ(PadLeft("ab", 4), "  ab");
  EXPECT_EQ(PadRight("caf\xC3\xA9", 6), "caf\xC3\xA9  ");
}

TEST(FormattingTest, JsonIsOneLine) {
  std::ostringstream out;
  WriteJson(boost::json::object{{"a", 1}}, out);
  EXPECT_EQ(out.str(), "{\"a\":1}\n");
}

}  // namespace
}  // namespace orvane::analyze::testing
