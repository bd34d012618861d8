// The boot fixer's reading of guestfish output: the list-filesystems parser, the
// boolean answers and the decision taken from the ESP probe, all on the same input.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "boot_fixer/esp_probe.h"

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool startsWith(const std::string& s, std::string_view prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view output(reinterpret_cast<const char*>(data), size);
  using Kind = orvane::EspDecision::Kind;

  for (const std::string& device : orvane::parseVfatDevices(output)) {
    if (device.empty() || isBlank(device.front()) || isBlank(device.back()))
      __builtin_trap();
    if (device.find(':') != std::string::npos || device.find('\n') != std::string::npos) {
      __builtin_trap();
    }
  }

  (void)orvane::isTrueAnswer(output);

  const orvane::EspDecision decision = orvane::decideFromProbe(output);
  switch (decision.kind) {
    case Kind::kAlreadyPresent:
      if (!decision.source.empty() || !decision.extraGrub.empty()) __builtin_trap();
      break;
    case Kind::kCopy:
      if (!startsWith(decision.source, "/EFI/")) __builtin_trap();
      if (!startsWith(decision.note, "added \\EFI\\BOOT\\BOOTX64.EFI from "))
        __builtin_trap();
      if (!decision.extraGrub.empty() && !startsWith(decision.extraGrub, "/EFI/")) {
        __builtin_trap();
      }
      break;
    case Kind::kNoSource:
      if (!decision.source.empty() || !decision.note.empty()) __builtin_trap();
      break;
  }
  return 0;
}
