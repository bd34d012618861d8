#pragma once

#include "boot_fixer/boot_fixer.h"

namespace orvane {

/// Works offline on the images through one `guestfish` (one appliance launch) per
/// call; never starts the guest. The ESP stays mounted read-only until a copy has
/// been decided on.
class GuestfishBootFixer : public BootFixer {
 public:
  BootFixResult ensureEfiFallback(const std::vector<std::string>& disks,
                                  ProgressObserver* progress,
                                  const volatile std::sig_atomic_t* stopFlag) override;
  /// Opens the disks read-only (guestfish reads VMDK directly).
  BootFixPrediction predictEfiFallback(const std::vector<std::string>& disks,
                                       ProgressObserver* progress,
                                       const volatile std::sig_atomic_t* stopFlag) override;
};

}  // namespace orvane
