#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>

#include "boot_fixer/boot_fixer.h"
#include "conversion/boot_prediction.h"
#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "progress/spinner.h"
#include "text/text.h"

namespace orvane {

int Conversion::dryRunSummary() {
  const std::string total = std::to_string(totalSteps_);
  log_.info("Step " + total + "/" + total + ": Preparing the dry-run summary...");
  // A UEFI guest's boot fix is decided now, on the source disks opened read-only, so
  // that a refusal is known before any disk is converted. Without guestfish there is
  // nothing to ask (that is a blocker of its own); a BIOS guest needs no appliance.
  BootPredictionReport bootPrediction;
  if (firmware_ == "efi" && commandExists("guestfish")) {
    log_.info("  Checking the source's EFI System Partition (libguestfs, read-only)...");
    BootFixPrediction predicted;
    {
      Spinner spinner("  reading the source disks", 1);
      predicted = bootFixer_->predictEfiFallback(vmdkFiles_, &spinner, &gPendingSignal);
    }
    checkSignal();
    bootPrediction = describeBootPrediction(predicted);
    if (!bootPrediction.issue.empty()) noteBlocker(bootPrediction.issue, kExitBootNotGuaranteed);
  }
  log_.emit("");
  log_.emit("=== DRY RUN SUMMARY ===");
  log_.emit("VM name:        " + vmName_);
  log_.emit("Source:         " + sourceType_ + " (" + options_.path + ")");
  log_.emit("CPUs / Memory:  " + std::to_string(numCpus_) + " / " + std::to_string(memSizeMb_) +
            " MB");
  log_.emit("Firmware:       " + firmware_ +
            (firmware_ == "efi" ? " (OVMF, Secure Boot off)" : ""));
  log_.emit("Storage / Net:  " + diskBus_ + " / " + nicModel_);
  if (legacyWindows_) log_.emit("                (IDE: pre-Windows-8 guest)");
  log_.emit("Clock:          " + clockOffset_);
  log_.emit("Output dir:     " + outputDir_);
  log_.emit("");
  log_.emit("Disks that would be converted:");
  for (std::size_t i = 0; i < vmdkFiles_.size(); ++i) {
    log_.emit("  " + vmdkFiles_[i]);
    log_.emit("        -> " + targetQcows_[i] + "  (" + targetDevs_[i] + ")");
  }
  if (firmware_ == "efi") {
    log_.emit("");
    log_.emit("UEFI boot fix would run (libguestfs): ensure \\EFI\\BOOT\\BOOTX64.EFI exists.");
    if (!bootPrediction.line.empty()) log_.emit(bootPrediction.line);
  }
  if (dryIssues_.empty()) {
    log_.emit("");
    log_.emit("(Dry run. No changes made. A real run would proceed.)");
    return kExitSuccess;
  }
  log_.emit("");
  log_.emit("Issues -- a real run would FAIL:");
  for (const std::string& issue : dryIssues_) {
    const char* indent = "  - ";
    for (std::string_view line : split(issue, '\n')) {
      log_.emit(indent + std::string(line));
      indent = "    ";
    }
  }
  log_.emit("");
  log_.emit("(Dry run. A real run would FAIL for the reason(s) above.)");
  return kExitFailure;
}

namespace {

// std::cin's buffer as the program started: <iostream> above has constructed it.
std::streambuf* const kStandardInput = std::cin.rdbuf();

// Waits until standard input has something to read (or its end, or an error), or a
// termination signal is pending (then false). poll is never restarted after a
// handler runs, and its timeout covers a signal that lands between the test and the
// call, so a Ctrl-C at the prompt is seen within a fraction of a second.
bool waitForAnswer() {
  // Text handed in through another buffer (by a test, say) is read as it is; only
  // the process's own standard input can keep us waiting.
  if (std::cin.rdbuf() != kStandardInput || std::cin.rdbuf()->in_avail() > 0) return true;
  constexpr int kCheckEveryMs = 200;
  while (gPendingSignal == 0) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = ::poll(&input, 1, kCheckEveryMs);
    if (ready > 0 || (ready == -1 && errno != EINTR)) return true;
  }
  return false;
}

}  // namespace

void Conversion::confirmOrAbort() {
  if (options_.assumeYes) return;
  log_.emit("");
  log_.emit("About to convert '" + options_.path + "' into Orvane VM '" + vmName_ + "':");
  log_.emit("  - Convert " + std::to_string(vmdkFiles_.size()) + " disk(s) to qcow2 in " +
            outputDir_);
  log_.emit("  - Hardware: " + diskBus_ + " storage, " + nicModel_ + " network");
  if (firmware_ == "efi") {
    log_.emit("  - Apply the UEFI fallback-bootloader fix as needed (libguestfs)");
  }
  log_.emit("  - Define the VM in Orvane (you can then start it)");
  log_.emit("");
  std::cout << "Proceed? (yes/no): " << std::flush;
  std::string answer;
  // End of input or an unreadable stdin leaves the answer empty: a refusal. A
  // signal makes the read fail (the handler does not restart it): an interruption.
  if (waitForAnswer() && !std::getline(std::cin, answer)) answer.clear();
  if (gPendingSignal != 0) {
    std::cout << std::endl;  // the next line must not start after the question
    checkSignal();
  }
  log_.info("User confirmation response: " + answer);
  if (answer == "yes") return;
  log_.info("Aborted by user.");
  throw V2vError("aborted by user", "", true);
}

void Conversion::summarize() {
  const bool windows = osFamily_ == "windows";
  log_.info("Step 7/" + std::to_string(totalSteps_) + ": Preparing the conversion summary...");
  const std::string rule(57, '=');
  log_.info("");
  log_.info(rule);
  log_.info(" Conversion complete: " + vmName_);
  log_.info(rule);
  log_.info("");
  log_.info("What we changed (for boot compatibility):");
  if (options_.virtio) {
    log_.info("  - Storage and network set to virtio (--virtio).");
  } else if (legacyWindows_) {
    log_.info("  - Storage set to IDE and network to e1000. This guest is from the");
    log_.info("    pre-Windows-8 era, which boots most reliably on IDE under KVM");
    log_.info("    (older Windows has no AHCI driver; Vista/7/2008 risk a stop error");
    log_.info("    on AHCI without a registry change we deliberately don't make).");
  } else {
    log_.info("  - Storage set to SATA and network to e1000 (default, for guaranteed boot).");
  }
  log_.info("  - Hardware clock set to '" + clockOffset_ + "' (correct for " + osFamily_ +
            " guests).");
  if (firmware_ == "efi") {
    log_.info("  - Firmware: UEFI (OVMF), Secure Boot disabled.");
    if (!efiFixNote_.empty()) log_.info("  - UEFI boot: " + efiFixNote_ + ".");
  } else {
    log_.info("  - Firmware: BIOS.");
  }
  log_.info("  - Display: standard VGA with a VNC console (compatible default).");
  log_.info("");
  log_.info("Recommended next steps:");
  log_.info("  - Review the VM, then start it:  virsh start " + vmName_);
  if (windows) {
    log_.info("  - Network: the new NIC is a different model than VMware's, so Windows");
    log_.info("    keeps a hidden 'ghost' adapter holding the old IP. Expect to reassign");
    log_.info("    networking once after first boot.");
    log_.info("  - Activation: the hardware change can prompt Windows/Office to");
    log_.info("    reactivate.");
  } else {
    log_.info("  - Network: the new NIC is a different model than VMware's, so the kernel");
    log_.info("    sees a new interface and may rename it (the old connection profile");
    log_.info("    won't apply). Expect to set networking once after first boot.");
  }
  if (!options_.virtio) {
    if (legacyWindows_) {
      log_.info("  - This is a pre-Windows-8 guest on IDE; virtio and SATA aren't");
      log_.info("    practical for it without driver work, so IDE is the right long-term");
      log_.info("    choice -- no performance migration is recommended.");
    } else {
      log_.info("  - Performance: this VM uses SATA + e1000 for a guaranteed boot. For");
      log_.info("    better I/O, move it to virtio once the guest supports it:");
      if (windows) {
        log_.info("      Windows: install the virtio-win drivers, then change the disk");
        log_.info("               bus to virtio and the NIC to virtio.");
      } else {
        log_.info("      Linux:   ensure virtio modules are in the initramfs");
        log_.info("               (e.g. 'dracut --regenerate-all --force'), then change");
        log_.info("               the disk bus to virtio and the NIC to virtio.");
      }
    }
  }
  log_.info("");
  log_.info("Full log: " + (runLogActive_.empty() ? std::string("<run log unavailable>")
                                                  : runLogActive_));
}

}  // namespace orvane
