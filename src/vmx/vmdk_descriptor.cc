// Snapshot and linked-clone detection from a disk's descriptor: such a disk is
// only a delta and cannot be converted on its own.

#include <cctype>
#include <fstream>
#include <string>
#include <string_view>

#include "vmx/vmx_reader.h"

namespace orvane {
namespace {

std::string_view trim(std::string_view s) {
  std::size_t begin = 0;
  std::size_t end = s.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(s[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(s[end - 1]))) --end;
  return s.substr(begin, end - begin);
}

std::string toLower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

constexpr std::string_view kLongestKeyPrefix = "parentfilenamehint";

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

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
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      hex.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
  }
  return !hex.empty() && hex != "ffffffff";
}

}  // namespace

bool descriptorHasParent(std::string_view descriptorHead) {
  const std::string_view text = descriptorHead.substr(0, kDescriptorScanBytes);
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    start = end + 1;

    // Either kind of evidence settles the answer, so the scan stops at the first.
    // Only the start of the key is compared, so only that much is lower-cased:
    // the head of a binary extent may be one line of 64 KiB.
    const std::string testKey = toLower(trim(line).substr(0, kLongestKeyPrefix.size()));
    if (startsWith(testKey, kLongestKeyPrefix)) {
      if (hintNamesParent(line)) return true;
    } else if (startsWith(testKey, "parentcid")) {
      if (cidNamesParent(line)) return true;
    }
  }
  return false;
}

bool vmdkHasParent(const std::string& vmdkPath) {
  // Unbuffered, so that the one bounded read below is all that is read: a
  // monolithic sparse disk carries its descriptor near the start, and a flat
  // extent of many gigabytes must never be read whole.
  std::ifstream in;
  in.rdbuf()->pubsetbuf(nullptr, 0);
  in.open(vmdkPath, std::ios::binary);
  if (!in) return false;
  std::string head(kDescriptorScanBytes, '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<std::size_t>(in.gcount()));
  return descriptorHasParent(head);
}

}  // namespace orvane
