#include "cli/usage.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace orvane {
namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

TEST(UsageText, LineByLine) {
  const std::vector<std::string> expected = {
      "",
      "Migrates a VMware VM into a running Orvane (libvirt/KVM) VM.",
      "",
      "Usage:",
      "  orvane-v2v -p <path-to-vm-folder> [options]",
      "",
      "Required:",
      "  -p, --path PATH          Path to the source VM folder (the VMware folder",
      "                           containing the .vmx and .vmdk files).",
      "",
      "Optional:",
      "  -o, --output-dir DIR     Directory for the converted qcow2 image(s).",
      "                           Default: the libvirt 'default' storage pool path.",
      "  -n, --vm-name NAME       Name for the new VM. Default: the VMX displayName.",
      "                           Must be a valid libvirt domain name.",
      "  --virtio                 Use virtio for storage and network instead of the",
      "                           default hardware (SATA + e1000, or IDE for pre-Win8",
      "                           Windows guests). virtio requires the guest to already",
      "                           have virtio drivers (virtio-win for Windows, virtio",
      "                           modules in the initramfs for Linux) or it won't boot.",
      "  -y, --yes                Skip the confirmation prompt (for automation).",
      "  -d, --dry-run            Validate and report what would happen. No changes.",
      "  -v, --verbose            Detailed console output for diagnostics.",
      "  -h, --help               Show this message and exit.",
      "",
      "Examples:",
      "  orvane-v2v -p /mnt/vmware/web01",
      "  orvane-v2v -p /mnt/vmware/web01 -n web01-migrated -o /var/lib/libvirt/images",
      "  orvane-v2v -p /mnt/vmware/db01 --virtio --yes",
      "  orvane-v2v -p /mnt/vmware/web01 --dry-run",
      "",
      "Exit codes:",
      "  0  success (or dry-run)",
      "  1  validation or conversion failure (partial output rolled back)",
      "  2  could not guarantee boot (refused, or rolled back to avoid a dud)",
  };
  const std::string whole = usageText();
  ASSERT_FALSE(whole.empty());
  EXPECT_EQ('\n', whole.back());
  const std::vector<std::string> text = lines(whole);
  ASSERT_EQ(expected.size() + 2, text.size());
  EXPECT_EQ("orvane-v2v v0.2.2", text[0]);
  EXPECT_EQ(0u, text[1].rfind("Copyright (c) ", 0)) << text[1];
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i], text[i + 2]) << "line " << i + 3;
  }
}

}  // namespace
}  // namespace orvane
