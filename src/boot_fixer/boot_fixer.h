#pragma once

#include <csignal>
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

/// What ensureEfiFallback would answer, and what it would copy.
struct BootFixPrediction {
  BootFixResult result;
  /// The guest's loader that would be copied to the fallback place, as "/EFI/...";
  /// empty when nothing would be written.
  std::string wouldCopyFrom;
};

/// Makes the converted disks bootable through the UEFI fallback loader. Abstract so
/// it can be replaced in tests; the real implementation is GuestfishBootFixer.
/// Reports every failure through the outcome, never by throwing.
class BootFixer {
 public:
  virtual ~BootFixer() = default;
  /// `stopFlag` (may be null): non-zero stops the work at once, with kError.
  virtual BootFixResult ensureEfiFallback(const std::vector<std::string>& disks,
                                          ProgressObserver* progress,
                                          const volatile std::sig_atomic_t* stopFlag) = 0;
  /// What ensureEfiFallback would answer for these disks (the source disks of a dry
  /// run), found without writing anything to them.
  virtual BootFixPrediction predictEfiFallback(const std::vector<std::string>& disks,
                                               ProgressObserver* progress,
                                               const volatile std::sig_atomic_t* stopFlag) = 0;
};

}  // namespace orvane
