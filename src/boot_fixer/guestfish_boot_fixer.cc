#include "boot_fixer/guestfish_boot_fixer.h"

#include <optional>
#include <random>

#include "boot_fixer/esp_probe.h"
#include "process/interactive_child.h"

namespace orvane {
namespace {

constexpr const char* kReadFailedConverted = "libguestfs could not read the converted disk(s).";
constexpr const char* kReadFailedSource = "libguestfs could not read the source disk(s).";
constexpr const char* kWriteFailed = "libguestfs failed to write the fallback bootloader.";

/// A guestfish argument in double quotes: guest paths come from the guest's own
/// listing and may hold blanks or quotes.
std::string quoted(const std::string& arg) {
  std::string out = "\"";
  for (char c : arg) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

/// One guestfish, one appliance, driven a command group at a time. guestfish prints
/// nothing between answers, so each group ends with an `echo` of a marker line that
/// no guest file name can predict; everything before it is the group's answer.
/// Commands prefixed with "-" may fail without ending the session (they then answer
/// nothing); any other failing command makes guestfish exit, which ends the session.
class GuestfishSession {
 public:
  GuestfishSession(ProgressObserver* progress, const volatile std::sig_atomic_t* stopFlag)
      : child_(InteractiveChild::Options{progress, 100, stopFlag, 3000}) {
    std::random_device random;
    const char* hex = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) nonce_ += hex[random() % 16];
  }

  /// Every run attaches all the disks: the ESP may lie on any of them.
  bool start(const std::string& mode, const std::vector<std::string>& disks) {
    std::vector<std::string> argv = {"guestfish", mode};
    for (const std::string& disk : disks) {
      argv.push_back("-a");
      argv.push_back(disk);
    }
    return child_.start(argv);
  }

  /// `commands`, each ended by a line feed; no value once guestfish has gone.
  std::optional<std::string> ask(const std::string& commands) {
    const std::string marker = "orvane-" + nonce_ + "-" + std::to_string(++asked_);
    return child_.exchange(commands + "echo " + marker + "\n", marker);
  }

  int finish() { return child_.finish(); }

 private:
  InteractiveChild child_;
  std::string nonce_;
  int asked_ = 0;
};

/// What the read-only part found: either an early result or the ESP and the decision.
struct Inspection {
  std::optional<BootFixResult> early;
  std::string esp;
  EspDecision decision;
};

Inspection inspect(GuestfishSession& fish, const char* readFailed) {
  const BootFixResult failed{BootFixOutcome::kError, readFailed};
  std::optional<std::string> listing = fish.ask("run\nlist-filesystems\n");
  if (!listing) return {failed, "", {}};

  // The first FAT file system that has an /EFI directory, each mounted read-only.
  std::string esp;
  bool mounted = false;
  for (const std::string& device : parseVfatDevices(*listing)) {
    std::optional<std::string> answer =
        fish.ask(std::string(mounted ? "-umount-all\n" : "") + "-mount-ro " +
                 quoted(device) + " /\n-is-dir /EFI\n");
    if (!answer) return {failed, "", {}};
    mounted = true;
    if (isTrueAnswer(*answer)) {
      esp = device;
      break;
    }
  }
  if (esp.empty()) return {BootFixResult{BootFixOutcome::kNoEsp, ""}, "", {}};

  // One answer per command so that a failed one is seen: it answers nothing, and the
  // answers after it would land on the wrong lines, so the probe stops there.
  std::string probe;
  for (const char* command : {"-exists /EFI/BOOT/BOOTX64.EFI\n",
                              "-exists /EFI/Microsoft/Boot/bootmgfw.efi\n", "-find /EFI\n"}) {
    std::optional<std::string> answer = fish.ask(command);
    if (!answer) return {failed, "", {}};
    if (answer->empty()) break;
    probe += *answer;
  }
  return {std::nullopt, esp, decideFromProbe(probe)};
}

/// The result of a decision that writes nothing; no value for a copy.
std::optional<BootFixResult> resultWithoutWrite(const EspDecision& decision) {
  switch (decision.kind) {
    case EspDecision::Kind::kAlreadyPresent:
      return BootFixResult{BootFixOutcome::kApplied, decision.note};
    case EspDecision::Kind::kNoSource:
      return BootFixResult{BootFixOutcome::kAmbiguous, ""};
    case EspDecision::Kind::kCopy:
      break;
  }
  return std::nullopt;
}

/// Remounted read-write only now that the decision to write is made: the fallback
/// loader and, for a shim, the GRUB it loads next.
std::string writeCommands(const std::string& device, const EspDecision& decision) {
  std::string commands = "umount-all\nmount " + quoted(device) + " /\nmkdir-p /EFI/BOOT\ncp " +
                         quoted(decision.source) + " /EFI/BOOT/BOOTX64.EFI\n";
  if (!decision.extraGrub.empty()) {
    commands += "cp " + quoted(decision.extraGrub) + " /EFI/BOOT/grubx64.efi\n";
  }
  return commands + "umount-all\n";
}

}  // namespace

BootFixResult GuestfishBootFixer::ensureEfiFallback(const std::vector<std::string>& disks,
                                                    ProgressObserver* progress,
                                                    const volatile std::sig_atomic_t* stopFlag) {
  GuestfishSession fish(progress, stopFlag);
  if (!fish.start("--rw", disks)) {
    return {BootFixOutcome::kError, kReadFailedConverted};
  }
  Inspection found = inspect(fish, kReadFailedConverted);
  if (!found.early) found.early = resultWithoutWrite(found.decision);
  if (found.early) {
    fish.finish();
    return *found.early;
  }
  // guestfish exits non-zero when a write command or the final sync fails.
  const bool written = fish.ask(writeCommands(found.esp, found.decision)).has_value();
  if (fish.finish() != 0 || !written) return {BootFixOutcome::kError, kWriteFailed};
  return {BootFixOutcome::kApplied, found.decision.note};
}

BootFixPrediction GuestfishBootFixer::predictEfiFallback(const std::vector<std::string>& disks,
                                                     ProgressObserver* progress,
                                                     const volatile std::sig_atomic_t* stopFlag) {
  GuestfishSession fish(progress, stopFlag);
  if (!fish.start("--ro", disks)) return {{BootFixOutcome::kError, kReadFailedSource}, ""};
  Inspection found = inspect(fish, kReadFailedSource);
  fish.finish();
  if (found.early) return {*found.early, ""};
  if (std::optional<BootFixResult> result = resultWithoutWrite(found.decision)) {
    return {*result, ""};
  }
  return {{BootFixOutcome::kApplied, found.decision.note}, found.decision.source};
}

}  // namespace orvane
