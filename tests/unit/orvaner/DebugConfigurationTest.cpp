#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TemporaryDirectory.h"
#include "log/Log.h"
#include "orvaner/plugins/DebugConfiguration.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// The entry's fields as one comparable value.
struct Fields {
  std::string name;
  std::vector<std::string> requiredBarriers;
  std::vector<std::string> providedBarriers;
  std::string command;
  bool operator==(const Fields&) const = default;
};

Fields FieldsOf(const DebugEntry& entry) {
  return {entry.name, entry.requiredBarriers, entry.providedBarriers, entry.command};
}

void PrintTo(const Fields& fields, std::ostream* out) {
  *out << "{" << ::testing::PrintToString(fields.name) << ", "
       << ::testing::PrintToString(fields.requiredBarriers) << ", "
       << ::testing::PrintToString(fields.providedBarriers) << ", "
       << ::testing::PrintToString(fields.command) << "}";
}

/// Writes debug configurations into a private temporary file, reads them back
/// and keeps what the reader logged (before logging is set up, the logging
/// library writes to standard error).
class DebugConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log_Exit();
    path_ = (directory_ / "debug.conf").string();
  }

  std::vector<Fields> Read(const std::string& content) {
    std::ofstream(path_, std::ios::binary) << content;
    return ReadPath(path_);
  }

  std::vector<Fields> ReadPath(const std::string& path) {
    std::vector<DebugEntry> entries;
    ::testing::internal::CaptureStderr();
    ReadDebugConfiguration(entries, path);
    logged = ::testing::internal::GetCapturedStderr();
    std::vector<Fields> fields;
    for (const DebugEntry& entry : entries) fields.push_back(FieldsOf(entry));
    return fields;
  }

  /// What @p cache reads at path_, with what it logged in `logged`.
  std::shared_ptr<const std::vector<DebugEntry>> ReadThrough(DebugConfigurationCache& cache) {
    ::testing::internal::CaptureStderr();
    std::shared_ptr<const std::vector<DebugEntry>> entries = cache.Read(path_);
    logged = ::testing::internal::GetCapturedStderr();
    return entries;
  }

  unit_testing::TemporaryDirectory temporary_;
  const std::filesystem::path& directory_ = temporary_.Path();
  std::string path_;
  std::string logged;
};

TEST_F(DebugConfigurationTest, NameRequiresProvidesAndCommand) {
  EXPECT_THAT(Read("inj:a,b:c:echo hi\n"),
              ElementsAre(Fields{"inj", {"a", "b"}, {"c"}, "echo hi"}));
  EXPECT_EQ(logged, "");
}

TEST_F(DebugConfigurationTest, EntriesComeInFileOrder) {
  EXPECT_THAT(Read("second:::true\nfirst:::false\nsecond:x::true\n"),
              ElementsAre(Fields{"second", {}, {}, "true"}, Fields{"first", {}, {}, "false"},
                          Fields{"second", {"x"}, {}, "true"}));
}

TEST_F(DebugConfigurationTest, LastLineWithoutLineEndIsRead) {
  EXPECT_THAT(Read("a:::true\nb:::false"),
              ElementsAre(Fields{"a", {}, {}, "true"}, Fields{"b", {}, {}, "false"}));
}

TEST_F(DebugConfigurationTest, QuotedCommandKeepsItsColons) {
  EXPECT_THAT(Read("inj:a:b:'date +%H:%M:%S'\n"),
              ElementsAre(Fields{"inj", {"a"}, {"b"}, "date +%H:%M:%S"}));
  EXPECT_THAT(Read("inj:::\"echo a:b\"\n"), ElementsAre(Fields{"inj", {}, {}, "echo a:b"}));
}

TEST_F(DebugConfigurationTest, UnquotedColonInTheCommandMakesTheLineMalformed) {
  EXPECT_THAT(Read("ok:::true\ninj:a:b:date +%H:%M\n"), ElementsAre(Fields{"ok", {}, {}, "true"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 2: inj:a:b:date +%H:%M\n"));
}

TEST_F(DebugConfigurationTest, ThreeFieldsAreReportedWithTheOneBasedLineNumber) {
  EXPECT_THAT(Read("a:::true\n\nb:x:y\nc:::true\n"),
              ElementsAre(Fields{"a", {}, {}, "true"}, Fields{"c", {}, {}, "true"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 3: b:x:y\n"));
  EXPECT_THAT(logged, Not(HasSubstr("line 1")));
  EXPECT_THAT(logged, Not(HasSubstr("line 4")));
}

TEST_F(DebugConfigurationTest, OneFieldAndFiveFieldsAreMalformedToo) {
  EXPECT_THAT(Read("justaname\na:b:c:d:e\n"), IsEmpty());
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 1: justaname\n"));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 2: a:b:c:d:e\n"));
}

TEST_F(DebugConfigurationTest, LinesAreTrimmedBeforeSplittingAndReporting) {
  EXPECT_THAT(Read("  \t inj : a : b : echo hi \t \r\n   bad:line  \n"),
              ElementsAre(Fields{"inj ", {" a "}, {" b "}, " echo hi"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 2: bad:line\n"));
}

TEST_F(DebugConfigurationTest, BlankLinesAreSkippedSilentlyButCounted) {
  EXPECT_THAT(Read("\n   \n\t\n\r\nbroken\n"), IsEmpty());
  EXPECT_EQ(logged.find("ignoring malformed"), logged.rfind("ignoring malformed"));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 5: broken\n"));
}

TEST_F(DebugConfigurationTest, HashLinesAreNotComments) {
  EXPECT_THAT(Read("# a comment\n#x:::echo four fields\n"),
              ElementsAre(Fields{"#x", {}, {}, "echo four fields"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 1: # a comment\n"));
}

TEST_F(DebugConfigurationTest, EscapesMakeTheNextCharacterLiteralAndAreRemoved) {
  EXPECT_THAT(Read(R"(in\:j:a,b:c:echo \"x\" \'y\' \\ z\: w)"),
              ElementsAre(Fields{"in:j", {"a", "b"}, {"c"}, R"(echo "x" 'y' \ z: w)"}));
}

TEST_F(DebugConfigurationTest, EscapedCommaInTheFirstSplitIsMalformed) {
  // The first split knows only its own separator, the quotes, the escape
  // character and "n" after an escape.
  EXPECT_THAT(Read(R"(inj:a\,b:c:true)"), IsEmpty());
  EXPECT_THAT(logged, HasSubstr(R"(ignoring malformed debug entry at line 1: inj:a\,b:c:true)"));
}

TEST_F(DebugConfigurationTest, BarrierNameWithACommaNeedsQuotesThatSurviveTheFirstSplit) {
  EXPECT_THAT(Read(R"(inj:\"a,b\",c::true)"), ElementsAre(Fields{"inj", {"a,b", "c"}, {}, "true"}));
}

TEST_F(DebugConfigurationTest, QuotesAroundABarrierFieldOnlyProtectTheFirstSplit) {
  EXPECT_THAT(Read(R"(inj:'a:b,c':"d,e":true)"),
              ElementsAre(Fields{"inj", {"a:b", "c"}, {"d", "e"}, "true"}));
}

TEST_F(DebugConfigurationTest, EitherQuoteCharacterEndsAQuote) {
  // The quote characters are not paired: the apostrophe closes the double
  // quote and the last double quote opens one that protects the colon.
  EXPECT_THAT(Read(R"(inj:::echo "it's":x)"), ElementsAre(Fields{"inj", {}, {}, "echo its:x"}));
}

TEST_F(DebugConfigurationTest, BackslashNIsALineEnd) {
  EXPECT_THAT(Read(R"(inj:::printf 'a\nb')"), ElementsAre(Fields{"inj", {}, {}, "printf a\nb"}));
}

TEST_F(DebugConfigurationTest, EmptyBarrierFieldsGiveEmptyListsAndEmptyItemsStay) {
  EXPECT_THAT(
      Read("inj:::true\nx:a,,b,:,:\n"),
      ElementsAre(Fields{"inj", {}, {}, "true"}, Fields{"x", {"a", "", "b", ""}, {"", ""}, ""}));
}

TEST_F(DebugConfigurationTest, EmptyNameAndCommandAreAccepted) {
  EXPECT_THAT(Read(":::\n"), ElementsAre(Fields{"", {}, {}, ""}));
}

TEST_F(DebugConfigurationTest, UnterminatedQuoteRunsToTheEndOfTheLine) {
  EXPECT_THAT(Read("inj:::echo 'a:b\n"), ElementsAre(Fields{"inj", {}, {}, "echo a:b"}));
}

TEST_F(DebugConfigurationTest, UnknownEscapeOrTrailingBackslashIsMalformedAndReadingGoesOn) {
  EXPECT_THAT(Read("a:::echo \\x\nb:::true\nc:::echo \\\n"),
              ElementsAre(Fields{"b", {}, {}, "true"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 1: a:::echo \\x\n"));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 3: c:::echo \\\n"));
}

TEST_F(DebugConfigurationTest, BadEscapeLeftForTheBarrierSplitIsMalformed) {
  EXPECT_THAT(Read(R"(inj:a\\x::true)"), IsEmpty());
  EXPECT_THAT(logged, HasSubstr(R"(ignoring malformed debug entry at line 1: inj:a\\x::true)"));
}

TEST_F(DebugConfigurationTest, MissingFileGivesNoEntriesAndNoMessage) {
  EXPECT_THAT(ReadPath((directory_ / "absent.conf").string()), IsEmpty());
  EXPECT_EQ(logged, "");
}

TEST_F(DebugConfigurationTest, DirectoryGivesNoEntriesAndAWarning) {
  EXPECT_THAT(ReadPath(directory_.string()), IsEmpty());
  EXPECT_EQ(logged, "ignoring the debug configuration " + directory_.string() +
                        ": not a regular file (a directory)\n");
}

// A FIFO without a writer would hold an ordinary open for ever.
TEST_F(DebugConfigurationTest, FifoReadsAsAbsentWithAWarningOnceForManyReads) {
  const std::string fifo = (directory_ / "fifo.conf").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_THAT(ReadPath(fifo), IsEmpty());
  EXPECT_EQ(logged, "ignoring the debug configuration " + fifo + ": not a regular file (a FIFO)\n");
  // The loader reads the configuration once per plugin file.
  EXPECT_THAT(ReadPath(fifo), IsEmpty());
  EXPECT_EQ(logged, "");
}

TEST_F(DebugConfigurationTest, ConfigurationLargerThanItsBoundReadsAsAbsentWithAWarning) {
  std::string large;
  while (large.size() <= kMaxDebugConfigurationSize) large += "inj:a:b:true\n";
  EXPECT_THAT(Read(large), IsEmpty());
  EXPECT_EQ(logged, "ignoring the debug configuration " + path_ + ": larger than " +
                        std::to_string(kMaxDebugConfigurationSize) + " bytes\n");
  // Cut to the bound, the same lines are read.
  large.resize(kMaxDebugConfigurationSize - kMaxDebugConfigurationSize % 13);
  EXPECT_EQ(Read(large).size(), kMaxDebugConfigurationSize / 13);
}

// ---- bad input

/// How many times @p needle occurs in @p text.
std::size_t Occurrences(const std::string& text, const std::string& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(DebugConfigurationTest, JunkLinesAreEachReportedOnceAndTheGoodOnesStillLoad) {
  std::string junk = "good1:::true\n";
  std::mt19937 random(20261121);
  // Bytes of every value but the line end, so that each junk line stays one line.
  std::uniform_int_distribution<int> byte(0, 255);
  constexpr int kJunkLines = 200;
  for (int line = 0; line < kJunkLines; ++line) {
    std::string bytes;
    for (int i = 0; i < 40; ++i) {
      char value = static_cast<char>(byte(random));
      bytes += value == '\n' ? 'x' : value;
    }
    junk += bytes + "\n";
  }
  junk += std::string(100000, 'a') + "\n";              // one very long malformed line
  junk += "long:::" + std::string(100000, 'b') + "\n";  // and a very long good one
  junk += "good2:a:b:true\n";
  std::vector<Fields> entries = Read(junk);

  // Every junk line is reported at most once; the few that happen to split
  // into four fields are entries, so reports and entries account for all.
  const std::size_t reports = Occurrences(logged, "ignoring malformed debug entry at line ");
  std::size_t junkEntries = entries.size() - 3;
  EXPECT_EQ(reports + junkEntries, static_cast<std::size_t>(kJunkLines) + 1);
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 202: "));
  ASSERT_GE(entries.size(), 3u);
  EXPECT_EQ(entries.front(), (Fields{"good1", {}, {}, "true"}));
  EXPECT_EQ(entries[entries.size() - 2], (Fields{"long", {}, {}, std::string(100000, 'b')}));
  EXPECT_EQ(entries.back(), (Fields{"good2", {"a"}, {"b"}, "true"}));
}

TEST_F(DebugConfigurationTest, NulBytesInALineDoNotEndIt) {
  const std::string line("nul:::echo a\0b", 14);
  EXPECT_THAT(Read(line + "\nafter:::true\n"),
              ElementsAre(Fields{"nul", {}, {}, std::string("echo a\0b", 8)},
                          Fields{"after", {}, {}, "true"}));
}

TEST_F(DebugConfigurationTest, EveryReadSeesTheFileAsItIsAndReportsItsMalformedLinesAgain) {
  EXPECT_THAT(Read("one:::echo 1\nbad line\n"), ElementsAre(Fields{"one", {}, {}, "echo 1"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 2: bad line\n"));
  EXPECT_THAT(ReadPath(path_), ElementsAre(Fields{"one", {}, {}, "echo 1"}));
  EXPECT_THAT(logged, HasSubstr("ignoring malformed debug entry at line 2: bad line\n"));
  // Same size, other text: the next read has the new entry.
  EXPECT_THAT(Read("two:::echo 2\nbad line\n"), ElementsAre(Fields{"two", {}, {}, "echo 2"}));
}

// ---- reading the file once per plugin file name

/// The names of @p entries, in order.
std::vector<std::string> Names(const std::shared_ptr<const std::vector<DebugEntry>>& entries) {
  std::vector<std::string> names;
  for (const DebugEntry& entry : *entries) names.push_back(entry.name);
  return names;
}

// A short margin, so that a test can wait for a stamp to settle; the
// temporary directory's file system keeps nanoseconds.
constexpr std::chrono::milliseconds kShortMargin{50};

void WaitForTheStampToSettle() { std::this_thread::sleep_for(kShortMargin * 3); }

TEST_F(DebugConfigurationTest, UnchangedSettledFileIsNotReadAgainAndSharesItsEntries) {
  std::ofstream(path_) << "one:::echo 1\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  const auto first = ReadThrough(cache);
  EXPECT_THAT(Names(first), ElementsAre("one"));
  for (int call = 0; call < 5; ++call) {
    EXPECT_EQ(ReadThrough(cache), first);
  }
  EXPECT_EQ(cache.TextReads(), 1u);
}

TEST_F(DebugConfigurationTest, FileChangedWithinTheMarginIsReadOnEveryCall) {
  DebugConfigurationCache cache;  // the real margin: this file was written just now
  std::ofstream(path_) << "one:::echo 1\n";
  const auto first = ReadThrough(cache);
  EXPECT_THAT(Names(first), ElementsAre("one"));
  // Unchanged: read again, but not parsed again.
  EXPECT_EQ(ReadThrough(cache), first);
  EXPECT_EQ(cache.TextReads(), 2u);
}

// Two writes of the same size within one tick of the file system's clock
// leave the same stamps: only reading the text tells them apart.
TEST_F(DebugConfigurationTest, SameSizeRewriteRightAfterAReadIsSeen) {
  DebugConfigurationCache cache;
  std::ofstream(path_) << "one:::echo 1\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  std::ofstream(path_) << "two:::echo 2\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("two"));
  std::ofstream(path_) << "one:::echo 1\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
}

TEST_F(DebugConfigurationTest, SameSizeRewriteOfASettledFileIsSeen) {
  std::ofstream(path_) << "one:::echo 1\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  std::ofstream(path_) << "two:::echo 2\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("two"));
  EXPECT_EQ(cache.TextReads(), 2u);
}

// An editor writes a new file and renames it over the old one; the new one
// may have the old one's size and modification time, but not its inode.
TEST_F(DebugConfigurationTest, SettledFileReplacedByOneOfTheSameSizeAndTimeIsSeen) {
  std::ofstream(path_) << "one:::echo 1\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  const std::string replacement = (directory_ / "replacement").string();
  std::ofstream(replacement) << "two:::echo 2\n";
  struct stat old {};
  ASSERT_EQ(::stat(path_.c_str(), &old), 0);
  const timespec times[2] = {old.st_atim, old.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, replacement.c_str(), times, 0), 0);
  std::filesystem::rename(replacement, path_);
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("two"));
}

TEST_F(DebugConfigurationTest, SettledFileThatVanishesGivesNoEntriesAndNoMessage) {
  std::ofstream(path_) << "one:::echo 1\nbad line\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  std::filesystem::remove(path_);
  EXPECT_THAT(*ReadThrough(cache), IsEmpty());
  EXPECT_EQ(logged, "");
}

TEST_F(DebugConfigurationTest, FileThatAppearsIsRead) {
  DebugConfigurationCache cache(kShortMargin);
  EXPECT_THAT(*ReadThrough(cache), IsEmpty());
  std::ofstream(path_) << "one:::echo 1\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  std::filesystem::remove(path_);
  EXPECT_THAT(*ReadThrough(cache), IsEmpty());
  std::ofstream(path_) << "two:::echo 2\n";
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("two"));
}

TEST_F(DebugConfigurationTest, SettledFileReplacedByADirectoryIsWarnedOfAndGivesNoEntries) {
  std::ofstream(path_) << "one:::echo 1\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_THAT(*ReadThrough(cache), IsEmpty());
  EXPECT_EQ(logged,
            "ignoring the debug configuration " + path_ + ": not a regular file (a directory)\n");
}

TEST_F(DebugConfigurationTest, MalformedLinesAreReportedOnEveryCallAlsoWithoutARead) {
  std::ofstream(path_) << "one:::echo 1\nbad line\n";
  WaitForTheStampToSettle();
  DebugConfigurationCache cache(kShortMargin);
  for (int call = 0; call < 3; ++call) {
    EXPECT_THAT(Names(ReadThrough(cache)), ElementsAre("one"));
    EXPECT_EQ(logged, "ignoring malformed debug entry at line 2: bad line\n");
  }
  EXPECT_EQ(cache.TextReads(), 1u);
}

TEST_F(DebugConfigurationTest, EntriesAreAppendedToTheCallersList) {
  std::ofstream(path_) << "new:::true\n";
  std::vector<DebugEntry> entries(1);
  entries[0].name = "old";
  ReadDebugConfiguration(entries, path_);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "old");
  EXPECT_EQ(entries[1].name, "new");
}

}  // namespace
}  // namespace orvane
