#include "boot_fixer/guestfish_boot_fixer.h"

#include <optional>

#include "boot_fixer/esp_probe.h"
#include "process/command_runner.h"

namespace orvane {
namespace {

/// Every run attaches all the disks: the ESP may lie on any of them.
std::vector<std::string> diskArgs(const std::string& mode,
                                  const std::vector<std::string>& disks) {
  std::vector<std::string> argv = {"guestfish", mode};
  for (const std::string& disk : disks) {
    argv.push_back("-a");
    argv.push_back(disk);
  }
  return argv;
}

CommandResult runGuestfish(std::vector<std::string> argv, std::string script,
                           ProgressObserver* progress) {
  CommandOptions options;
  options.stdinData = std::move(script);
  options.progress = progress;
  options.tickIntervalMs = 100;
  return runCommand(argv, options);
}

/// The first FAT file system that has an /EFI directory.
std::optional<std::string> findEsp(const std::vector<std::string>& disks,
                                   const std::vector<std::string>& vfatDevices,
                                   ProgressObserver* progress) {
  for (const std::string& device : vfatDevices) {
    std::vector<std::string> argv = diskArgs("--ro", disks);
    argv.insert(argv.end(), {"run", ":", "mount-ro", device, "/", ":", "is-dir", "/EFI"});
    if (isTrueAnswer(runGuestfish(argv, "", progress).stdoutText)) return device;
  }
  return std::nullopt;
}

std::string probeScript(const std::string& device) {
  return "run\nmount-ro " + device +
         " /\nexists /EFI/BOOT/BOOTX64.EFI\nexists /EFI/Microsoft/Boot/bootmgfw.efi\n"
         "find /EFI\n";
}

/// One write launch: the fallback loader and, for a shim, the GRUB it loads next.
std::string writeScript(const std::string& device, const EspDecision& decision) {
  std::string script = "run\nmount " + device + " /\nmkdir-p /EFI/BOOT\ncp " +
                       decision.source + " /EFI/BOOT/BOOTX64.EFI\n";
  if (!decision.extraGrub.empty()) {
    script += "cp " + decision.extraGrub + " /EFI/BOOT/grubx64.efi\n";
  }
  return script;
}

}  // namespace

BootFixResult GuestfishBootFixer::ensureEfiFallback(const std::vector<std::string>& disks,
                                                    ProgressObserver* progress) {
  std::vector<std::string> listArgv = diskArgs("--ro", disks);
  listArgv.insert(listArgv.end(), {"run", ":", "list-filesystems"});
  CommandResult listing = runGuestfish(listArgv, "", progress);
  if (!listing.ok()) {
    return {BootFixOutcome::kError, "libguestfs could not read the converted disk(s)."};
  }

  std::optional<std::string> esp =
      findEsp(disks, parseVfatDevices(listing.stdoutText), progress);
  if (!esp) return {BootFixOutcome::kNoEsp, ""};

  // The probe's exit status says nothing useful: a missing /EFI/Microsoft makes
  // `exists` answer false, and a failed mount leaves no lines, which decides
  // "no source" on its own.
  CommandResult probe =
      runGuestfish(diskArgs("--ro", disks), probeScript(*esp), progress);
  EspDecision decision = decideFromProbe(probe.stdoutText);
  switch (decision.kind) {
    case EspDecision::Kind::kAlreadyPresent:
      return {BootFixOutcome::kApplied, decision.note};
    case EspDecision::Kind::kNoSource:
      return {BootFixOutcome::kAmbiguous, ""};
    case EspDecision::Kind::kCopy:
      break;
  }

  CommandResult write =
      runGuestfish(diskArgs("--rw", disks), writeScript(*esp, decision), progress);
  if (!write.ok()) {
    return {BootFixOutcome::kError,
            "libguestfs failed to write the fallback bootloader."};
  }
  return {BootFixOutcome::kApplied, decision.note};
}

}  // namespace orvane
