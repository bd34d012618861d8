#include "boot_fixer/boot_fixer.h"
#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "progress/spinner.h"

namespace orvane {

void Conversion::bootFix() {
  const std::string total = std::to_string(totalSteps_);
  if (firmware_ != "efi") {
    log_.info("Step 4/" + total + ": BIOS guest -- no UEFI boot fix needed.");
    stepBootfixOk_ = true;
    return;
  }
  log_.info("Step 4/" + total + ": Applying UEFI boot fix (libguestfs)...");
  Spinner spinner("  applying boot fix", 1);
  BootFixResult result =
      bootFixer_->ensureEfiFallback(createdQcows_, &spinner, &gPendingSignal);
  // A signal stops the appliance and surfaces as a tool failure: it is an interrupt.
  checkSignal();
  switch (result.outcome) {
    case BootFixOutcome::kApplied:
      // The fixer wrote into the images through its own appliance; those writes
      // must be on stable storage before a VM is defined over them.
      for (const std::string& image : createdQcows_) {
        const std::string failure = flushToDisk(image);
        if (failure.empty()) continue;
        log_.error("Could not make " + image + " durable: " + failure);
        throw V2vError("image flush failed", "boot_fix", true);
      }
      efiFixNote_ = result.note;
      if (!efiFixNote_.empty()) log_.info("  UEFI: " + efiFixNote_);
      stepBootfixOk_ = true;
      return;
    case BootFixOutcome::kError:
      if (!result.note.empty()) log_.error(result.note);
      log_.error("The UEFI boot fix failed. Refusing to continue.");
      throw V2vError("uefi fix failed", "boot_fix", true);
    case BootFixOutcome::kNoEsp:
      log_.error("Firmware is EFI but no EFI System Partition was found on the");
      log_.error("converted disk(s); cannot guarantee boot. Refusing.");
      throw BootNotGuaranteedError("no ESP", "boot_fix", true);
    case BootFixOutcome::kAmbiguous:
      log_.error("The ESP has no clear bootloader to make bootable (none found,");
      log_.error("or several candidates). Refusing rather than ship a VM that");
      log_.error("may not boot. Inspect the guest's ESP and convert manually.");
      throw BootNotGuaranteedError("ambiguous ESP", "boot_fix", true);
  }
  // An outcome outside the enumeration is a fixer bug; it must not pass for success.
  log_.error("The UEFI boot fix failed. Refusing to continue.");
  throw V2vError("uefi fix failed", "boot_fix", true);
}

}  // namespace orvane
