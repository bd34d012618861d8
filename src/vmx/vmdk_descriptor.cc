// Reading VMDK descriptors: snapshot and linked-clone detection (such a disk is
// only a delta and cannot be converted on its own), and the files a descriptor
// makes qemu-img open.

#include "vmx/vmdk_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "text/text.h"
#include "vmx/vmx_reader.h"

namespace orvane {
namespace {

constexpr std::string_view kLongestKeyPrefix = "parentfilenamehint";

/// `parentFileNameHint="x"`: a non-empty quoted name. An empty hint is what a
/// base disk may carry, so it says nothing.
bool hintNamesParent(std::string_view line) {
  const std::size_t open = line.find('"');
  if (open == std::string_view::npos) return false;
  const std::size_t close = line.find('"', open + 1);
  return close != std::string_view::npos && close > open + 1;
}

/// `parentCID=1a2b3c4d`: any CID but ffffffff (the "no parent" marker) names one.
bool cidNamesParent(std::string_view line) {
  const std::size_t eq = line.find('=');
  if (eq == std::string_view::npos) return false;
  std::string hex;
  for (char c : line.substr(eq + 1)) {
    if (std::isxdigit(static_cast<unsigned char>(c))) hex.push_back(c);
  }
  return !hex.empty() && toLowerAscii(hex) != "ffffffff";
}

std::uint64_t littleEndian64(std::string_view bytes, std::size_t at) {
  std::uint64_t value = 0;
  for (std::size_t i = 8; i-- > 0;) {
    value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

/// The file name an extent line quotes. Like qemu-img, a name whose closing quote
/// is missing runs to the end of the line: such a line still opens a file there.
std::optional<std::string> extentName(std::string_view line) {
  const std::string_view trimmed = trim(line);
  std::size_t wordEnd = 0;
  while (wordEnd < trimmed.size() &&
         !std::isspace(static_cast<unsigned char>(trimmed[wordEnd]))) {
    ++wordEnd;
  }
  const std::string access = toLowerAscii(trimmed.substr(0, wordEnd));
  if (access != "rw" && access != "rdonly" && access != "noaccess") return std::nullopt;
  const std::size_t open = trimmed.find('"', wordEnd);
  if (open == std::string_view::npos) return std::nullopt;
  std::size_t close = trimmed.find_first_of("\"\r", open + 1);
  if (close == std::string_view::npos) close = trimmed.size();
  if (close == open + 1) return std::nullopt;
  return std::string(trimmed.substr(open + 1, close - open - 1));
}

/// The value of a `createType="..."` line, quotes dropped.
std::optional<std::string> createTypeValue(std::string_view line) {
  const std::size_t eq = line.find('=');
  if (eq == std::string_view::npos ||
      toLowerAscii(trim(line.substr(0, eq))) != "createtype") {
    return std::nullopt;
  }
  std::string_view value = trim(line.substr(eq + 1));
  if (!value.empty() && value.front() == '"') value.remove_prefix(1);
  if (const std::size_t quote = value.find('"'); quote != std::string_view::npos) {
    value = value.substr(0, quote);
  }
  return std::string(value);
}

}  // namespace

DescriptorInfo parseDescriptor(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  DescriptorInfo info;
  bool haveCreateType = false;
  for (std::string_view line : splitLines(text)) {
    if (std::optional<std::string> name = extentName(line)) {
      info.extents.push_back(std::move(*name));
    } else if (std::optional<std::string> type = createTypeValue(line);
               type && !haveCreateType) {
      info.createType = std::move(*type);
      haveCreateType = true;
    }
  }
  return info;
}

bool isRawDeviceCreateType(std::string_view createType) {
  const std::string type = toLowerAscii(trim(createType));
  return type == "fulldevice" || type == "partitioneddevice" ||
         type == "vmfsrawdevicemap" || type == "vmfspassthroughrawdevicemap";
}

std::optional<SparseHeader> sparseHeader(std::string_view head) {
  // magic, version, flags (4 bytes each), capacity, grain size, descriptor
  // offset, descriptor size (8 bytes each), all little-endian.
  constexpr std::size_t kHeaderFields = 44;
  if (head.size() < kHeaderFields || !head.starts_with("KDMV")) return std::nullopt;
  SparseHeader header;
  header.capacity = littleEndian64(head, 12);
  header.descriptorOffset = littleEndian64(head, 28);
  header.descriptorSize = littleEndian64(head, 36);
  return header;
}

bool isLegacySparse(std::string_view head) { return head.starts_with("COWD"); }

int openRegularFile(const std::string& path) {
  // Checked before the open, because opening a FIFO waits for a writer and
  // opening a device may act on it (a tape rewinds); checked again on what was
  // opened, in case the name was swapped in between. O_NONBLOCK makes that
  // second open return at once whatever the name has become.
  struct stat before {};
  if (stat(path.c_str(), &before) != 0) return -1;
  if (!S_ISREG(before.st_mode)) {
    errno = ENXIO;
    return -1;
  }
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat opened {};
  if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
    close(fd);
    errno = ENXIO;
    return -1;
  }
  return fd;
}

std::string readAt(int fd, std::uint64_t offset, std::size_t max) {
  std::string out(max, '\0');
  std::size_t got = 0;
  while (got < max) {
    const ssize_t n =
        pread(fd, out.data() + got, max - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  out.resize(got);
  return out;
}

bool descriptorHasParent(std::string_view descriptorHead) {
  const std::string_view text = descriptorHead.substr(0, kDescriptorScanBytes);
  for (std::string_view line : splitLines(text)) {
    // Either kind of evidence settles the answer, so the scan stops at the first.
    // Only the start of the key is compared, so only that much is lower-cased:
    // the head of a binary extent may be one line of 64 KiB.
    const std::string testKey = toLowerAscii(trim(line).substr(0, kLongestKeyPrefix.size()));
    if (testKey.starts_with(kLongestKeyPrefix)) {
      if (hintNamesParent(line)) return true;
    } else if (testKey.starts_with("parentcid")) {
      if (cidNamesParent(line)) return true;
    }
  }
  return false;
}

bool vmdkHasParent(const std::string& vmdkPath) {
  // One bounded read: a monolithic sparse disk carries its descriptor near the
  // start, and a flat extent of many gigabytes must never be read whole. A file
  // that is not regular is not opened at all; the disk-file check reports it.
  const int fd = openRegularFile(vmdkPath);
  if (fd < 0) return false;
  const std::string head = readAt(fd, 0, kDescriptorScanBytes);
  close(fd);
  return descriptorHasParent(head);
}

}  // namespace orvane
