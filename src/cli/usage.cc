#include "cli/usage.h"

#include <sstream>

namespace orvane {

std::string usageText() {
  std::ostringstream out;
  // clang-format off
  out << kToolName << " v" << kVersion << "\n"
      << "Copyright (c) 2026 Orvane. All rights reserved.\n"
      << "\n"
      << "Migrates a VMware VM into a running Orvane (libvirt/KVM) VM.\n"
      << "\n"
      << "Usage:\n"
      << "  " << kToolName << " -p <path-to-vm-folder> [options]\n"
      << "\n"
      << "Required:\n"
      << "  -p, --path PATH          Path to the source VM folder (the VMware folder\n"
      << "                           containing the .vmx and .vmdk files).\n"
      << "\n"
      << "Optional:\n"
      << "  -o, --output-dir DIR     Directory for the converted qcow2 image(s).\n"
      << "                           Default: the libvirt 'default' storage pool path.\n"
      << "  -n, --vm-name NAME       Name for the new VM. Default: the VMX displayName.\n"
      << "                           Must be a valid libvirt domain name.\n"
      << "  --virtio                 Use virtio for storage and network instead of the\n"
      << "                           default hardware (SATA + e1000, or IDE for pre-Win8\n"
      << "                           Windows guests). virtio requires the guest to already\n"
      << "                           have virtio drivers (virtio-win for Windows, virtio\n"
      << "                           modules in the initramfs for Linux) or it won't boot.\n"
      << "  -y, --yes                Skip the confirmation prompt (for automation).\n"
      << "  -d, --dry-run            Validate and report what would happen. No changes.\n"
      << "  -v, --verbose            Detailed console output for diagnostics.\n"
      << "  -h, --help               Show this message and exit.\n"
      << "\n"
      << "Examples:\n"
      << "  " << kToolName << " -p /mnt/vmware/web01\n"
      << "  " << kToolName
      << " -p /mnt/vmware/web01 -n web01-migrated -o /var/lib/libvirt/images\n"
      << "  " << kToolName << " -p /mnt/vmware/db01 --virtio --yes\n"
      << "  " << kToolName << " -p /mnt/vmware/web01 --dry-run\n"
      << "\n"
      << "Exit codes:\n"
      << "  0  success (or dry-run)\n"
      << "  1  validation or conversion failure (partial output rolled back)\n"
      << "  2  could not guarantee boot (refused, or rolled back to avoid a dud)\n";
  // clang-format on
  return out.str();
}

}  // namespace orvane
