#include "orvaner/RunOnceRecord.h"

#include <zlib.h>

#include <array>
#include <boost/algorithm/string/trim.hpp>
#include <boost/iostreams/device/back_inserter.hpp>
#include <boost/iostreams/device/file.hpp>
#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <boost/iostreams/operations.hpp>
#include <cerrno>
#include <cstring>
#include <ios>
#include <istream>
#include <string_view>

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

// True when at least one byte of the file can be read; the source is left
// at its start. A gzip decompressor refuses empty input, but an empty or
// unreadable record (a directory, say) is simply a record with nothing in it.
bool HasContent(io::file_source& source) {
  char first = 0;
  try {
    if (source.read(&first, 1) <= 0) {
      return false;
    }
  } catch (const std::ios_base::failure&) {
    return false;
  }
  io::seek(source, 0, std::ios_base::beg);
  return true;
}

void ReadKeys(std::istream& line, std::set<std::string>& runOnceSet) {
  std::array<char, std::char_traits<char>::length(kRunOnceRecordPrefix)> prefix{};
  line.read(prefix.data(), prefix.size());
  if (std::string_view(prefix.data(), prefix.size()) != kRunOnceRecordPrefix) {
    return;
  }
  std::string item;
  while (std::getline(line, item, kItemSeparator)) {
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
  io::file_source source(path, std::ios_base::in | std::ios_base::binary);
  if (!source.is_open() || !HasContent(source)) {
    return;
  }
  io::filtering_istream line;
  line.push(io::gzip_decompressor(kWindowBits, kBufferSize));
  line.push(source);
  // A corrupt or truncated file must not read as a shorter record: let the
  // decompressor's error out of the stream instead of a quiet end.
  line.exceptions(std::ios_base::badbit);
  try {
    ReadKeys(line, runOnceSet);
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
