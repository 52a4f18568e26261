#include "orvaner/run/RunOnceRecord.h"

#include <zlib.h>

#include <array>
#include <boost/algorithm/string/trim.hpp>
#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/device/back_inserter.hpp>
#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <boost/iostreams/operations.hpp>
#include <cerrno>
#include <cstring>
#include <ios>
#include <istream>
#include <sstream>
#include <string_view>

#include "hostfile/HostFile.h"
#include "log/Log.h"
#include "orvaner/Exception.h"

namespace orvane {
namespace {

namespace io = boost::iostreams;

constexpr int kWindowBits = 15;
constexpr int kMemoryLevel = 8;
constexpr std::streamsize kBufferSize = 4096;
constexpr char kItemSeparator = ',';
constexpr char kLineEnd = '\n';

// The header carries no file name, no comment and a modification time of 0,
// so that the same set always gives the same bytes.
io::gzip_params CompressorParameters() {
  return io::gzip_params(io::gzip::default_compression, io::gzip::deflated, kWindowBits,
                         kMemoryLevel, io::gzip::default_strategy, "", "", 0);
}

std::string DescribeGzipError(const io::gzip_error& error) {
  switch (error.error()) {
    case io::gzip::zlib_error:
      return std::string("corrupt compressed data (zlib: ") + zError(error.zlib_error_code()) + ")";
    case io::gzip::bad_crc: return "the checksum does not match the data";
    case io::gzip::bad_length: return "the recorded length does not match the data";
    case io::gzip::bad_header: return "not a gzip file, or its header is cut short";
    case io::gzip::bad_footer: return "the gzip data ends early (truncated file)";
    case io::gzip::bad_method: return "unsupported compression method";
  }
  return "gzip error " + std::to_string(error.error());
}

std::string SystemErrorText(int savedErrno) {
  return savedErrno != 0 ? std::strerror(savedErrno) : "unknown error";
}

// The keys of a record's decompressed line. Nothing after a foreign
// prefix is read, so a record of someone else's is never an error; the
// rest of a line of ours is read whole, but never more than
// kMaxRunOnceLineSize bytes of it.
void ReadKeys(std::istream& line, std::set<std::string>& runOnceSet, const std::string& path) {
  std::array<char, std::char_traits<char>::length(kRunOnceRecordPrefix)> prefix{};
  line.read(prefix.data(), prefix.size());
  if (std::string_view(prefix.data(), prefix.size()) != kRunOnceRecordPrefix) {
    return;
  }
  std::string keys;
  std::array<char, kBufferSize> block{};
  while (line.read(block.data(), block.size()) || line.gcount() > 0) {
    keys.append(block.data(), static_cast<std::size_t>(line.gcount()));
    if (keys.size() > kMaxRunOnceLineSize) {
      throw Exception("cannot read the run-once record " + path + ": its line is longer than " +
                      std::to_string(kMaxRunOnceLineSize) + " bytes");
    }
  }
  std::istringstream items(keys);
  std::string item;
  while (std::getline(items, item, kItemSeparator)) {
    boost::algorithm::trim(item);
    if (!item.empty()) {
      runOnceSet.insert(item);
    }
  }
}

}  // namespace

std::string RunOnceRecordLine(const std::set<std::string>& runOnceSet) {
  std::string line = kRunOnceRecordPrefix;
  for (const std::string& key : runOnceSet) {
    line += key;
    line += kItemSeparator;
  }
  line += kLineEnd;
  return line;
}

void ReadRunOnceRecord(std::set<std::string>& runOnceSet, const std::string& path) {
  const hostfile::FileContent record = hostfile::ReadHostFile(path, kMaxRunOnceRecordSize);
  switch (record.status) {
    case hostfile::ReadStatus::Read: break;
    case hostfile::ReadStatus::CannotOpen: return;  // missing or unreadable: nothing has run
    case hostfile::ReadStatus::NotRegular:
    case hostfile::ReadStatus::ReadFailed:
      Log_Level(LOG_LEVEL_WARNING, "ignoring the run-once record %s: %s\n", path.c_str(),
                record.Problem().c_str());
      return;
    case hostfile::ReadStatus::TooLarge:
      throw Exception("cannot read the run-once record " + path + ": " + record.Problem());
  }
  // A gzip decompressor refuses empty input, but an empty record is simply
  // one with nothing in it.
  if (record.text.empty()) {
    return;
  }
  io::filtering_istream line;
  line.push(io::gzip_decompressor(kWindowBits, kBufferSize));
  line.push(io::array_source(record.text.data(), record.text.size()));
  // A corrupt or truncated file must not read as a shorter record: let the
  // decompressor's error out of the stream instead of a quiet end.
  line.exceptions(std::ios_base::badbit);
  try {
    ReadKeys(line, runOnceSet, path);
  } catch (const io::gzip_error& error) {
    throw Exception("cannot read the run-once record " + path + ": " + DescribeGzipError(error));
  } catch (const std::ios_base::failure& error) {
    throw Exception("cannot read the run-once record " + path + ": " + error.what());
  }
}

void WriteRunOnceRecord(const std::set<std::string>& runOnceSet, const std::string& path) {
  errno = 0;
  io::file_sink file(path, std::ios_base::out | std::ios_base::trunc | std::ios_base::binary);
  if (!file.is_open()) {
    throw Exception("cannot write the run-once record " + path + ": " + SystemErrorText(errno));
  }

  // Compressed in memory first: a file sink that stops taking bytes would
  // otherwise leave the compressor's close waiting on it for ever.
  std::string member;
  {
    io::filtering_ostream compressed;
    compressed.push(io::gzip_compressor(CompressorParameters(), kBufferSize));
    compressed.push(io::back_inserter(member));
    compressed << RunOnceRecordLine(runOnceSet);
    compressed.reset();  // finishes the gzip member
  }

  errno = 0;
  const auto size = static_cast<std::streamsize>(member.size());
  if (file.write(member.data(), size) != size || !file.flush()) {
    const int savedErrno = errno;
    file.close();
    throw Exception("cannot write the run-once record " + path + ": " +
                    SystemErrorText(savedErrno));
  }
  file.close();
}

}  // namespace orvane
