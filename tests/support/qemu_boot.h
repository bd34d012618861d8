#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane::testing {

/// The line a boot-proof guest prints on its serial console once its kernel has
/// started /init; seeing it proves firmware, bootloader and kernel all worked.
inline constexpr std::string_view kBootMarker = "ORVANE-BOOT-OK";

enum class GuestFirmware { kBios, kUefi };
enum class GuestDiskBus { kSata, kIde };

/// One emulated boot of one disk image.
struct BootRequest {
  std::string image;
  std::string format = "raw";  ///< "raw" or "qcow2"; the image is opened snapshot=on
  GuestFirmware firmware = GuestFirmware::kBios;
  std::string machine;         ///< qemu machine type; empty: "q35" for UEFI, "pc" for BIOS
  GuestDiskBus bus = GuestDiskBus::kSata;
  int timeoutSeconds = 300;
};

/// The firmware, machine and disk bus of a libvirt domain definition, so a test
/// boots an image on the hardware the program chose for it. `image` and `format`
/// are left for the caller. Unknown buses and machines are kept as found.
BootRequest bootRequestFromDomainXml(const std::string& domainXml);

/// The qemu-system-x86_64 arguments (without the program name) for `request`,
/// writing the serial console to `serialLog`; `varsFile` is the UEFI variable store
/// (ignored for BIOS). Never uses KVM, a display, a network card or a reboot.
std::vector<std::string> qemuBootArgs(const BootRequest& request, const std::string& serialLog,
                                      const std::string& varsFile);

enum class SerialVerdict {
  kRunning,   ///< nothing decisive yet
  kBooted,    ///< the marker appeared
  kGaveUp,    ///< firmware or loader reported that nothing could be booted
};

/// Classifies the serial console text so far; `why` gets the decisive text.
SerialVerdict classifySerial(std::string_view serial, std::string* why = nullptr);

enum class BootOutcome { kBooted, kGaveUp, kExited, kTimedOut, kNotStarted };

struct BootResult {
  BootOutcome outcome = BootOutcome::kNotStarted;
  std::string reason;     ///< what ended the boot, for messages
  double seconds = 0;     ///< from qemu's start to the verdict
  std::string serialLog;  ///< everything the guest printed
  std::string qemuOutput; ///< qemu's own stdout and stderr
  bool booted() const { return outcome == BootOutcome::kBooted; }
  /// The outcome, the reason and the tail of the serial log, for a failure message.
  std::string describe() const;
};

/// Where scripts/host-setup records whether KVM runs a guest on this host: "works",
/// "absent" or "no-guest".
inline constexpr const char* kKvmStateFile = "/run/orvane-v2v/kvm";

/// True only when host-setup found that KVM runs a guest here. Without its finding
/// emulation is the answer: it works everywhere, only slower.
bool kvmRunsGuests();

/// `domainXml` with the domain type "qemu" (emulation) unless KVM runs guests here:
/// libvirt refuses a "kvm" domain on a host where /dev/kvm exists but does not work.
std::string domainTypeForThisHost(const std::string& domainXml);

/// Sets LIBGUESTFS_BACKEND_SETTINGS=force_tcg for this process and its children
/// unless KVM runs guests here: libguestfs picks KVM whenever /dev/kvm exists, and its
/// appliance then never answers on a host where the device does not work.
void useTcgUnlessKvmRunsGuests();

/// Boots `request` under emulation with a fresh, empty UEFI variable store, and
/// stops as soon as the marker appears, the firmware gives up, qemu exits or the
/// timeout passes. The image itself is never written to.
BootResult bootDisk(const BootRequest& request);

}  // namespace orvane::testing
