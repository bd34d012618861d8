#pragma once

#include <string>

namespace orvane::testing {

enum class GuestDiskKind { kUefi, kBios };

/// Path of a small raw disk image that boots the host's kernel into an initramfs
/// printing kBootMarker (support/qemu_boot.h) on ttyS0:
///  - kUefi: GPT, an ESP with shim and GRUB in \EFI\debian only (no \EFI\BOOT), so
///    it boots under empty UEFI variables only once a fallback loader is added;
///  - kBios: MBR, GRUB for i386-pc in the MBR gap, kernel on a FAT partition.
/// Built by tests/e2e/guests/build-guest-disk.sh on first use and cached under
/// /var/tmp/orvane-guest-disks, keyed by the kernel and the builder script's
/// content. Callers must not modify the image (boot it with snapshot=on, or copy
/// it). Throws std::runtime_error with the builder's output when a build fails.
std::string guestDiskImage(GuestDiskKind kind);

/// Empty when every host file the guest disks and their boots need is present;
/// otherwise a sentence naming what is missing.
std::string missingGuestDiskPrerequisites();

}  // namespace orvane::testing
