#include "conversion/boot_prediction.h"

namespace orvane {

BootPredictionReport describeBootPrediction(const BootFixPrediction& prediction) {
  const std::string prefix = "  From the source disks: ";
  const std::string exit2 =
      ": a real run would convert every disk and then end with exit 2 (boot could not be "
      "guaranteed).";
  switch (prediction.result.outcome) {
    case BootFixOutcome::kApplied:
      if (prediction.wouldCopyFrom.empty()) {
        return {prefix + "already bootable (\\EFI\\BOOT\\BOOTX64.EFI is present; left as-is).",
                ""};
      }
      return {prefix + "would write the fallback loader from " + prediction.wouldCopyFrom + ".", ""};
    case BootFixOutcome::kNoEsp:
      return {prefix + "the boot fix would refuse (no EFI System Partition).",
              "Firmware is EFI but no EFI System Partition was found on the source disk(s)" +
                  exit2 + "\nCheck the VM's firmware setting and its disks in VMware, then re-run."};
    case BootFixOutcome::kAmbiguous:
      return {prefix + "the boot fix would refuse (no clear bootloader on the ESP).",
              "The source's ESP has no clear bootloader to make bootable (none found, or several "
              "candidates)" +
                  exit2 + "\nInspect the guest's ESP and convert manually."};
    case BootFixOutcome::kError:
      break;
  }
  // Not a blocker: the real run looks again, at the converted images.
  return {"  Could not be predicted" +
              (prediction.result.note.empty() ? std::string(".") : ": " + prediction.result.note) +
              " A real run checks the converted disks.",
          ""};
}

}  // namespace orvane
