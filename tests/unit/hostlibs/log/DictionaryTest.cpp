#include <gtest/gtest.h>

#include "log/Dictionary.h"

namespace {

class DictionaryTest : public ::testing::Test {
 protected:
  void TearDown() override { Dictionary_Free(dictionary_); }
  Dictionary* dictionary_ = Dictionary_Create();
};

TEST_F(DictionaryTest, AbsentKeysGiveTheFallback) {
  EXPECT_STREQ(Dict_GetString(dictionary_, "log.syslogID", "none"), "none");
  EXPECT_TRUE(Dict_GetBool(dictionary_, "log.useTimeStamps.stdio", true));
  EXPECT_FALSE(Dict_GetBool(dictionary_, "log.useTimeStamps.stdio", false));
}

TEST_F(DictionaryTest, StringsAndBooleansReadBack) {
  Dict_SetString(dictionary_, "log.syslogID", "orvane");
  Dict_SetBool(dictionary_, "log.useMilliseconds.stdio", true);
  Dict_SetBool(dictionary_, "log.useTimeStamps.stdio", false);
  EXPECT_STREQ(Dict_GetString(dictionary_, "log.syslogID", ""), "orvane");
  EXPECT_TRUE(Dict_GetBool(dictionary_, "log.useMilliseconds.stdio", false));
  EXPECT_FALSE(Dict_GetBool(dictionary_, "log.useTimeStamps.stdio", true));
}

TEST_F(DictionaryTest, SettingAgainReplaces) {
  Dict_SetString(dictionary_, "log.stdoutLevel", "info");
  Dict_SetString(dictionary_, "log.stdoutLevel", "debug");
  EXPECT_STREQ(Dict_GetString(dictionary_, "log.stdoutLevel", ""), "debug");
}

TEST_F(DictionaryTest, ClearRemovesEveryKey) {
  Dict_SetString(dictionary_, "log.syslogID", "orvane");
  Dict_SetString(dictionary_, "log.syslogLevel", "info");
  Dictionary_Clear(dictionary_);
  EXPECT_STREQ(Dict_GetString(dictionary_, "log.syslogID", "gone"), "gone");
  EXPECT_STREQ(Dict_GetString(dictionary_, "log.syslogLevel", "gone"), "gone");
}

TEST_F(DictionaryTest, BooleansAcceptTheUsualSpellings) {
  for (const char* yes : {"TRUE", "true", "1", "yes"}) {
    Dict_SetString(dictionary_, "flag", yes);
    EXPECT_TRUE(Dict_GetBool(dictionary_, "flag", false)) << yes;
  }
  for (const char* no : {"FALSE", "false", "0", "no", ""}) {
    Dict_SetString(dictionary_, "flag", no);
    EXPECT_FALSE(Dict_GetBool(dictionary_, "flag", true)) << no;
  }
}

}  // namespace
