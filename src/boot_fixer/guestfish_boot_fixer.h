#pragma once

#include "boot_fixer/boot_fixer.h"

namespace orvane {

/// Works offline on the images through `guestfish`; never starts the guest.
class GuestfishBootFixer : public BootFixer {
 public:
  BootFixResult ensureEfiFallback(const std::vector<std::string>& disks,
                                  ProgressObserver* progress) override;
};

}  // namespace orvane
