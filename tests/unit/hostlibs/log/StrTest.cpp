#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "log/Str.h"

namespace {

TEST(Str, AsprintfFormatsAndReportsTheLength) {
  std::size_t length = 0;
  char* text = Str_SafeAsprintf(&length, "Activating Orvane plugin %s.", "foo");
  EXPECT_STREQ(text, "Activating Orvane plugin foo.");
  EXPECT_EQ(length, std::string("Activating Orvane plugin foo.").size());
  std::free(text);
}

TEST(Str, LengthMayBeOmitted) {
  char* text = Str_SafeAsprintf(nullptr, "%d-%s", 42, "x");
  EXPECT_STREQ(text, "42-x");
  std::free(text);
}

TEST(Str, LongResultsAreComplete) {
  std::string longArgument(100000, 'a');
  std::size_t length = 0;
  char* text = Str_SafeAsprintf(&length, "[%s]", longArgument.c_str());
  EXPECT_EQ(length, longArgument.size() + 2);
  EXPECT_EQ(std::string(text), "[" + longArgument + "]");
  std::free(text);
}

}  // namespace
