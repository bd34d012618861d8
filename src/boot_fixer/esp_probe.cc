#include "boot_fixer/esp_probe.h"

#include <cstddef>

#include "text/text.h"

namespace orvane {
namespace {

/// A `find /EFI` line as a path relative to /EFI. Debian 12's guestfish prints
/// "/ubuntu/shimx64.efi" where others print "ubuntu/shimx64.efi"; both must give
/// the same decisions and the same "/EFI/ubuntu/shimx64.efi" path.
std::string_view relativeFindPath(std::string_view line) {
  std::string_view path = trim(line);
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  return path;
}

std::string lastComponent(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

/// The GRUB that the shim at `shimRelative` will load, when the listing has one
/// beside it and \EFI\BOOT has none yet.
std::string siblingGrub(std::string_view shimRelative,
                        const std::vector<std::string_view>& findLines) {
  std::size_t slash = shimRelative.rfind('/');
  if (slash == std::string_view::npos) return {};
  std::string wanted = toLowerAscii(shimRelative.substr(0, slash)) + "/grubx64.efi";
  std::string found;
  for (std::string_view line : findLines) {
    std::string_view path = relativeFindPath(line);
    std::string lower = toLowerAscii(path);
    if (lower == "boot/grubx64.efi") return {};
    if (found.empty() && lower == wanted) found = "/EFI/" + std::string(path);
  }
  return found;
}

}  // namespace

std::vector<std::string> parseVfatDevices(std::string_view listing) {
  std::vector<std::string> devices;
  for (std::string_view line : splitLines(listing)) {
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view device = trim(line.substr(0, colon));
    if (device.empty()) continue;
    if (toLowerAscii(trim(line.substr(colon + 1))) == "vfat") devices.emplace_back(device);
  }
  return devices;
}

bool isTrueAnswer(std::string_view answer) {
  return toLowerAscii(trim(answer)).starts_with("true");
}

EspDecision decideFromProbe(std::string_view probeOutput) {
  std::vector<std::string_view> lines = splitLines(probeOutput);
  EspDecision decision;
  if (!lines.empty() && isTrueAnswer(lines[0])) {
    decision.kind = EspDecision::Kind::kAlreadyPresent;
    decision.note = "fallback bootloader already present (left as-is)";
    return decision;
  }
  if (lines.size() >= 2 && isTrueAnswer(lines[1])) {
    decision.kind = EspDecision::Kind::kCopy;
    decision.source = "/EFI/Microsoft/Boot/bootmgfw.efi";
    decision.note = "added \\EFI\\BOOT\\BOOTX64.EFI from the Windows boot manager";
    return decision;
  }

  std::vector<std::string_view> findLines;
  if (lines.size() > 2) findLines.assign(lines.begin() + 2, lines.end());

  std::vector<std::string_view> candidates;  // relative to /EFI, case kept
  for (std::string_view line : findLines) {
    std::string_view path = relativeFindPath(line);
    std::string lower = toLowerAscii(path);
    // Whatever already sits under \EFI\BOOT is the firmware's, not a vendor loader.
    if (lower.empty() || lower.starts_with("boot/")) continue;
    if (lower.ends_with("/shimx64.efi") || lower.ends_with("/grubx64.efi")) {
      candidates.push_back(path);
    }
  }
  if (candidates.size() > 1) {
    std::vector<std::string_view> shims;
    for (std::string_view c : candidates) {
      if (toLowerAscii(c).ends_with("/shimx64.efi")) shims.push_back(c);
    }
    candidates = shims;
  }
  if (candidates.size() != 1) return decision;

  std::string_view chosen = candidates.front();
  decision.kind = EspDecision::Kind::kCopy;
  decision.source = "/EFI/" + std::string(chosen);
  decision.note = "added \\EFI\\BOOT\\BOOTX64.EFI from " + lastComponent(decision.source);
  if (toLowerAscii(chosen).ends_with("shimx64.efi")) {
    decision.extraGrub = siblingGrub(chosen, findLines);
  }
  return decision;
}

}  // namespace orvane
