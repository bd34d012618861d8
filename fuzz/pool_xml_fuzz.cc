// extractPoolPath on arbitrary `virsh pool-dumpxml` output.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "libvirt_backend/virsh_libvirt_backend.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string xml(reinterpret_cast<const char*>(data), size);
  const std::optional<std::string> path = orvane::extractPoolPath(xml);
  if (!path) return 0;
  if (path->empty() || isBlank(path->front()) || isBlank(path->back())) __builtin_trap();
  if (xml.find("<path>") == std::string::npos) __builtin_trap();
  if (xml.find(*path) == std::string::npos) __builtin_trap();
  return 0;
}
