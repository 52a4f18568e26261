#include "orvaner/plugins/SharedObjectCheck.h"

#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "hostfile/HostFile.h"

namespace orvane {
namespace {

constexpr unsigned char kNativeByteOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// Reads up to @p length bytes at @p offset; the count read, -1 on failure.
ssize_t ReadAt(int descriptor, void* bytes, std::size_t length, std::uint64_t offset) {
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return -1;
  ssize_t count;
  do {
    count = ::pread(descriptor, bytes, length, static_cast<off_t>(offset));
  } while (count < 0 && errno == EINTR);
  return count;
}

// A file that this cannot read as a 64-bit ELF object of this machine's
// byte order is left to the loader.
std::string TruncationReason(int descriptor, std::uint64_t fileSize,
                             const std::string& libraryPath) {
  Elf64_Ehdr header{};
  if (ReadAt(descriptor, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
      std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_ident[EI_DATA] != kNativeByteOrder || header.e_phentsize != sizeof(Elf64_Phdr)) {
    return "";
  }
  // The whole table in one read (a plugin has about ten entries); the
  // entries that a cut-off file still holds are checked, the rest is left
  // to the loader. No room is made for more entries than the file can hold.
  const std::uint64_t room =
      header.e_phoff < fileSize ? (fileSize - header.e_phoff) / sizeof(Elf64_Phdr) : 0;
  std::vector<Elf64_Phdr> segments(std::min<std::uint64_t>(header.e_phnum, room));
  const ssize_t count =
      ReadAt(descriptor, segments.data(), segments.size() * sizeof(Elf64_Phdr), header.e_phoff);
  const std::size_t whole = count > 0 ? static_cast<std::size_t>(count) / sizeof(Elf64_Phdr) : 0;
  for (std::size_t index = 0; index < whole; ++index) {
    const Elf64_Phdr& segment = segments[index];
    const std::uint64_t segmentEnd = segment.p_offset + segment.p_filesz;
    if (segment.p_type == PT_LOAD && (segmentEnd < segment.p_offset || segmentEnd > fileSize)) {
      return libraryPath + ": file truncated: a loadable segment ends at byte " +
             std::to_string(segmentEnd) + " of a file of " + std::to_string(fileSize) + " bytes";
    }
  }
  return "";
}

}  // namespace

std::string UnfitReason(const std::string& libraryPath) {
  hostfile::FileContent failure;
  off_t size = 0;
  const int descriptor = hostfile::OpenRegularFile(libraryPath, failure, &size);
  if (descriptor < 0) {
    return failure.status == hostfile::ReadStatus::NotRegular ? failure.Problem() : "";
  }
  std::string reason = TruncationReason(descriptor, static_cast<std::uint64_t>(size), libraryPath);
  ::close(descriptor);
  return reason;
}

}  // namespace orvane
