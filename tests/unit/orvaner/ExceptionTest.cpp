#include <gtest/gtest.h>

#include "orvaner/Exception.h"

namespace orvane {
namespace {

TEST(Exception, CarriesItsMessageUnchanged) {
  Exception error("Failed to initialize logging to syslog.\n");
  EXPECT_STREQ(error.what(), "Failed to initialize logging to syslog.\n");
}

TEST(Exception, NotImplementedQuotesTheMethodWithBackquoteThenStraightQuote) {
  NotImplementedException error("restart");
  EXPECT_STREQ(error.what(), "method `restart' is not implemented");
}

TEST(Exception, MethodFailedPutsThePluginNameFirst) {
  MethodFailedException error("start", "foo", "error while executing the cli");
  EXPECT_STREQ(error.what(), "foo->start() failed: error while executing the cli");
}

TEST(Exception, InvalidPluginNamesThePluginAndTheReason) {
  InvalidPluginException error("foo", "missing \"provides\"");
  EXPECT_STREQ(error.what(), "plugin `foo' is invalid: missing \"provides\"");
}

TEST(Exception, EverySubclassIsCaughtAsTheBaseAndAsStdException) {
  auto throwAndCatch = [](auto&& thrower) -> std::string {
    try {
      thrower();
    } catch (const Exception& error) {
      const std::exception& standard = error;
      return standard.what();
    }
    return "not caught";
  };
  EXPECT_EQ(throwAndCatch([] { throw NotImplementedException("stop"); }),
            "method `stop' is not implemented");
  EXPECT_EQ(throwAndCatch([] { throw MethodFailedException("stop", "ntpd", "status 3"); }),
            "ntpd->stop() failed: status 3");
  EXPECT_EQ(throwAndCatch([] { throw InvalidPluginException("bar", "no metadata"); }),
            "plugin `bar' is invalid: no metadata");
}

}  // namespace
}  // namespace orvane
