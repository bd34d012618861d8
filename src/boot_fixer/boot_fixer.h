#pragma once

#include <string>
#include <vector>

namespace orvane {

class ProgressObserver;

enum class BootFixOutcome {
  kApplied = 0,    ///< \EFI\BOOT\BOOTX64.EFI is present afterwards
  kNoEsp = 1,      ///< no FAT file system with an /EFI directory
  kError = 2,      ///< the tool failed
  kAmbiguous = 3,  ///< an ESP, but no single loader to copy
};

struct BootFixResult {
  BootFixOutcome outcome = BootFixOutcome::kError;
  std::string note;  ///< what was done, or the error text; may be empty
};

/// Makes the converted disks bootable through the UEFI fallback loader. Abstract so
/// it can be replaced in tests; the real implementation is GuestfishBootFixer.
/// Reports every failure through the outcome, never by throwing.
class BootFixer {
 public:
  virtual ~BootFixer() = default;
  virtual BootFixResult ensureEfiFallback(const std::vector<std::string>& disks,
                                          ProgressObserver* progress) = 0;
};

}  // namespace orvane
