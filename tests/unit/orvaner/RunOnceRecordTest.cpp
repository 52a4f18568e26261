// The run-once record: the line it holds, the gzip member around it, files
// written and read by the gzip tool, and what corrupt files and unwritable
// places give.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "TemporaryDirectory.h"
#include "orvaner/Exception.h"
#include "orvaner/run/RunOnceRecord.h"

namespace orvane {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// Everything @p command prints on standard output; fails the test when it
/// does not exit with 0.
std::string Output(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return output;
  }
  char buffer[4096];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, count);
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return output;
}

/// What the gzip tool decompresses @p path to.
std::string Gunzip(const std::string& path) { return Output("gzip -dc '" + path + "'"); }

class RunOnceRecordTest : public ::testing::Test {
 protected:
  /// Compresses @p content with the gzip tool (with @p gzipOptions) into
  /// the record's place and returns its path.
  std::string GzipRecord(const std::string& content, const std::string& gzipOptions = "-n") {
    directory_.Write("record", content);
    Output("gzip " + gzipOptions + " -f '" + directory_ / "record" + "'");
    return record_;
  }

  /// The record's raw bytes.
  std::string RecordBytes() { return directory_.Read("record.gz"); }

  /// What reading the record adds to a set that holds @p before.
  std::set<std::string> ReadInto(std::set<std::string> before) {
    ReadRunOnceRecord(before, record_);
    return before;
  }

  /// The message of the Exception that reading the record throws.
  std::string ReadFailure() {
    std::set<std::string> keys;
    try {
      ReadRunOnceRecord(keys, record_);
    } catch (const Exception& error) {
      return error.what();
    }
    ADD_FAILURE() << "reading did not throw";
    return {};
  }

  unit_testing::TemporaryDirectory directory_;
  const std::string record_ = directory_ / "record.gz";
};

// ---- the line

TEST_F(RunOnceRecordTest, LineListsKeysInSetOrderEachFollowedByAComma) {
  EXPECT_EQ(RunOnceRecordLine({"foo1.0", "bar2"}), "orvane.run-once=bar2,foo1.0,\n");
}

TEST_F(RunOnceRecordTest, EmptySetGivesThePrefixAlone) {
  EXPECT_EQ(RunOnceRecordLine({}), "orvane.run-once=\n");
}

TEST_F(RunOnceRecordTest, KeysAreWrittenAsTheyStandWithoutCleaning) {
  EXPECT_EQ(RunOnceRecordLine({"a b", "B", "a"}), "orvane.run-once=B,a,a b,\n");
}

// ---- writing

TEST_F(RunOnceRecordTest, WrittenFileDecompressesWithGzipToTheLine) {
  WriteRunOnceRecord({"foo1.0", "bar2"}, record_);
  EXPECT_EQ(Gunzip(record_), "orvane.run-once=bar2,foo1.0,\n");
}

TEST_F(RunOnceRecordTest, EmptySetIsWrittenAsThePrefixLine) {
  WriteRunOnceRecord({}, record_);
  EXPECT_EQ(Gunzip(record_), "orvane.run-once=\n");
}

TEST_F(RunOnceRecordTest, HeaderHasDeflateNoNameNoCommentAndTimeZero) {
  WriteRunOnceRecord({"foo1.0"}, record_);
  const std::string bytes = RecordBytes();
  ASSERT_GE(bytes.size(), 18u);
  EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0x1f);
  EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 0x8b);
  EXPECT_EQ(bytes[2], 8) << "compression method deflate";
  EXPECT_EQ(bytes[3], 0) << "flags: no name, no comment, no extra field";
  EXPECT_EQ(bytes.substr(4, 4), std::string(4, '\0')) << "modification time 0";
  // The footer's length field: the line "orvane.run-once=foo1.0,\n".
  EXPECT_EQ(bytes.substr(bytes.size() - 4), std::string("\x18\0\0\0", 4));
}

TEST_F(RunOnceRecordTest, SameSetGivesTheSameBytes) {
  WriteRunOnceRecord({"a1", "b2"}, record_);
  const std::string first = RecordBytes();
  WriteRunOnceRecord({"a1", "b2"}, record_);
  EXPECT_EQ(RecordBytes(), first);
}

TEST_F(RunOnceRecordTest, WritingTruncatesALongerRecordInPlace) {
  WriteRunOnceRecord({"a-long-key-1.0", "another-long-key-2.0", "third3"}, record_);
  struct stat before {};
  ASSERT_EQ(::stat(record_.c_str(), &before), 0);
  WriteRunOnceRecord({"x"}, record_);
  struct stat after {};
  ASSERT_EQ(::stat(record_.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino) << "written in place, not replaced";
  EXPECT_EQ(Gunzip(record_), "orvane.run-once=x,\n");
}

TEST_F(RunOnceRecordTest, WriteIntoAMissingDirectoryNamesThePathAndTheSystemError) {
  const std::string path = directory_ / "bootbank/orvstate.gz";
  try {
    WriteRunOnceRecord({"a"}, path);
    FAIL() << "writing did not throw";
  } catch (const Exception& error) {
    EXPECT_EQ(std::string(error.what()),
              "cannot write the run-once record " + path + ": No such file or directory");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(RunOnceRecordTest, WriteOnAFullDeviceNamesThePathAndTheSystemError) {
  try {
    WriteRunOnceRecord({"a"}, "/dev/full");
    FAIL() << "writing did not throw";
  } catch (const Exception& error) {
    EXPECT_EQ(std::string(error.what()),
              "cannot write the run-once record /dev/full: No space left on device");
  }
}

// ---- reading

TEST_F(RunOnceRecordTest, WrittenRecordReadsBackToTheSameSet) {
  const std::set<std::string> keys = {"a1", "b-2.0_x+y", "zz"};
  WriteRunOnceRecord(keys, record_);
  EXPECT_EQ(ReadInto({}), keys);
}

TEST_F(RunOnceRecordTest, ReadingAddsToTheKeysAlreadyInTheSet) {
  GzipRecord("orvane.run-once=a1,b2,\n");
  EXPECT_THAT(ReadInto({"c3", "a1"}), ElementsAre("a1", "b2", "c3"));
}

TEST_F(RunOnceRecordTest, ContentWithAnotherPrefixContributesNothing) {
  for (const std::string content :
       {"orvane.run-onc3=a1,b2,\n", "Orvane.run-once=a1,\n", " orvane.run-once=a1,\n",
        "something else entirely\n", "orvane.run-once"}) {
    GzipRecord(content);
    EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli")) << content;
  }
}

TEST_F(RunOnceRecordTest, ItemsWithBlanksAroundThemGiveTheSameKeys) {
  GzipRecord("orvane.run-once= a1 ,\tb2\t,\r\n c3\v\f,d 4 ,\n");
  EXPECT_THAT(ReadInto({}), ElementsAre("a1", "b2", "c3", "d 4"));
}

TEST_F(RunOnceRecordTest, EmptyAndBlankItemsAreSkipped) {
  GzipRecord("orvane.run-once=,, ,a1,,\n\n");
  EXPECT_THAT(ReadInto({}), ElementsAre("a1"));
}

TEST_F(RunOnceRecordTest, LastItemWithoutCommaOrLineEndStillCounts) {
  GzipRecord("orvane.run-once=a1,b2");
  EXPECT_THAT(ReadInto({}), ElementsAre("a1", "b2"));
}

TEST_F(RunOnceRecordTest, PrefixAloneAddsNothing) {
  GzipRecord("orvane.run-once=\n");
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
}

TEST_F(RunOnceRecordTest, MissingFileReadsAsAnEmptyRecord) {
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
}

TEST_F(RunOnceRecordTest, EmptyFileReadsAsAnEmptyRecord) {
  directory_.Write("record.gz", "");
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
}

TEST_F(RunOnceRecordTest, DirectoryInTheRecordsPlaceReadsAsAnEmptyRecord) {
  std::filesystem::create_directory(record_);
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
}

// A FIFO without a writer would hold an ordinary open for ever.
TEST_F(RunOnceRecordTest, FifoInTheRecordsPlaceReadsAsAnEmptyRecordWithAWarning) {
  ASSERT_EQ(::mkfifo(record_.c_str(), 0600), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
  EXPECT_THAT(
      ::testing::internal::GetCapturedStderr(),
      HasSubstr("ignoring the run-once record " + record_ + ": not a regular file (a FIFO)"));
}

TEST_F(RunOnceRecordTest, RecordLargerThanItsBoundIsAnErrorNamingThePath) {
  directory_.Write("record.gz", std::string(kMaxRunOnceRecordSize + 1, 'x'));
  EXPECT_EQ(ReadFailure(), "cannot read the run-once record " + record_ + ": larger than " +
                               std::to_string(kMaxRunOnceRecordSize) + " bytes");
}

TEST_F(RunOnceRecordTest, SmallRecordThatDecompressesBeyondTheLineBoundIsAnError) {
  // A few kilobytes of gzip that would decompress to 17 MiB of one key.
  GzipRecord("orvane.run-once=" + std::string(kMaxRunOnceLineSize + 1024 * 1024, 'k') + ",\n");
  ASSERT_LT(RecordBytes().size(), 64u * 1024);
  EXPECT_EQ(ReadFailure(), "cannot read the run-once record " + record_ +
                               ": its line is longer than " + std::to_string(kMaxRunOnceLineSize) +
                               " bytes");
}

TEST_F(RunOnceRecordTest, ForeignRecordIsNotReadPastItsPrefix) {
  // Corrupt data after a foreign prefix is never reached.
  GzipRecord("something else " + std::string(100000, 'z'));
  std::string bytes = RecordBytes();
  bytes.resize(bytes.size() / 2);
  directory_.Write("record.gz", bytes);
  EXPECT_THAT(ReadInto({"cli"}), ElementsAre("cli"));
}

TEST_F(RunOnceRecordTest, FileCompressedByGzipWithItsNameInTheHeaderIsRead) {
  GzipRecord("orvane.run-once=a1,b2,\n", "-N");
  ASSERT_EQ(RecordBytes()[3] & 0x08, 0x08) << "the header should carry a file name";
  EXPECT_THAT(ReadInto({}), ElementsAre("a1", "b2"));
}

TEST_F(RunOnceRecordTest, FileCompressedByGzipWithoutNameAtBestCompressionIsRead) {
  GzipRecord("orvane.run-once=a1,b2,\n", "-n -9");
  ASSERT_EQ(RecordBytes()[3], 0) << "the header should carry no file name";
  EXPECT_THAT(ReadInto({}), ElementsAre("a1", "b2"));
}

// ---- corrupt records

TEST_F(RunOnceRecordTest, UncompressedFileIsAnErrorNamingThePath) {
  directory_.Write("record.gz", "orvane.run-once=a1,\n");
  EXPECT_EQ(ReadFailure(), "cannot read the run-once record " + record_ +
                               ": not a gzip file, or its header is cut short");
}

TEST_F(RunOnceRecordTest, RecordCutInItsFooterIsAnErrorNamingThePath) {
  GzipRecord("orvane.run-once=a1,b2,\n");
  const std::string bytes = RecordBytes();
  directory_.Write("record.gz", bytes.substr(0, bytes.size() - 4));
  EXPECT_EQ(ReadFailure(), "cannot read the run-once record " + record_ +
                               ": the gzip data ends early (truncated file)");
}

TEST_F(RunOnceRecordTest, RecordCutInItsCompressedDataIsAnErrorNamingThePath) {
  GzipRecord("orvane.run-once=a1,b2,\n");
  directory_.Write("record.gz", RecordBytes().substr(0, 14));
  EXPECT_THAT(ReadFailure(), AllOf(HasSubstr("cannot read the run-once record " + record_ + ": "),
                                   HasSubstr("zlib: buffer error")));
}

TEST_F(RunOnceRecordTest, WrongChecksumIsAnErrorNamingThePath) {
  GzipRecord("orvane.run-once=a1,b2,\n");
  std::string bytes = RecordBytes();
  bytes[bytes.size() - 8] ^= 0x5a;  // first byte of the CRC-32
  directory_.Write("record.gz", bytes);
  EXPECT_EQ(ReadFailure(), "cannot read the run-once record " + record_ +
                               ": the checksum does not match the data");
}

TEST_F(RunOnceRecordTest, CorruptCompressedDataIsAnErrorNamingThePath) {
  GzipRecord("orvane.run-once=a1,b2,\n");
  std::string bytes = RecordBytes();
  bytes[10] = static_cast<char>(0xff);  // a reserved block type
  directory_.Write("record.gz", bytes);
  EXPECT_THAT(ReadFailure(), AllOf(HasSubstr("cannot read the run-once record " + record_ + ": "),
                                   HasSubstr("corrupt compressed data (zlib: data error)")));
}

}  // namespace
}  // namespace orvane
