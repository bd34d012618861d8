#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane {

/// The devices of `list-filesystems` output ("<device>: <type>" lines) whose type is
/// "vfat" (any case), in output order. Lines without ":" or with an empty device are
/// skipped. Pure and total: any input, however malformed, yields a list.
std::vector<std::string> parseVfatDevices(std::string_view listing);

/// True when a guestfish boolean answer (of `is-dir`, `exists`), trimmed and
/// lower-cased, begins with "true".
bool isTrueAnswer(std::string_view answer);

/// What the probe of an ESP says should happen to \EFI\BOOT\BOOTX64.EFI.
struct EspDecision {
  enum class Kind {
    kAlreadyPresent,  ///< the fallback exists; nothing may be written
    kCopy,            ///< copy `source` to the fallback place
    kNoSource,        ///< no single loader could be chosen
  };
  Kind kind = Kind::kNoSource;
  std::string source;  ///< "/EFI/..." as the guest spells it; kCopy only
  std::string note;    ///< the account for the user; kAlreadyPresent and kCopy
  /// The shim's sibling GRUB, to be copied to /EFI/BOOT/grubx64.efi as well: shim
  /// loads grubx64.efi from its own directory, so a lone shim under \EFI\BOOT would
  /// not boot. Empty when the source is no shim, it has no sibling GRUB, or
  /// \EFI\BOOT\grubx64.efi already exists (never overwritten).
  std::string extraGrub;
};

/// Decides from the output of the probe script (line 1: exists BOOTX64.EFI, line 2:
/// exists bootmgfw.efi, then `find /EFI` paths, with or without a leading "/").
/// Pure and total: any input yields a decision.
EspDecision decideFromProbe(std::string_view probeOutput);

}  // namespace orvane
