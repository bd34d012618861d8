// What libvirt really holds after a migration of a VM whose NICs and boot disk
// VMware describes its own way: a static MAC, a NIC switched off, and a BIOS
// hard-disk order that puts a SCSI disk before the SATA disk that sorts first.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

class VmxNicsAndBootDiskOnHost : public HostRunTest {};

TEST_F(VmxNicsAndBootDiskOnHost, DefinedDomainHasVmwaresMacsAndBootDisk) {
  VmwareFolderSpec spec;
  spec.displayName = "vmx-nics";
  spec.folderName = "vmx-nics-src";
  spec.nicMacs = {};
  // The data disk sorts first by bus; VMware boots the SCSI disk.
  spec.disks = {
      VmwareDiskSpec{"sata0:0", "vmx-data.vmdk", 2ULL << 20, "monolithicFlat"},
      VmwareDiskSpec{"scsi0:0", "vmx-system.vmdk", 3ULL << 20, "monolithicFlat"}};
  spec.extraLines = {
      "bios.hddOrder = \"scsi0:0\"",
      "ethernet0.addressType = \"static\"",
      "ethernet0.address = \"00:50:56:3F:0E:01\"",
      "ethernet0.virtualDev = \"vmxnet3\"",
      "ethernet0.present = \"TRUE\"",
      "ethernet1.addressType = \"generated\"",
      "ethernet1.generatedAddress = \"00:0c:29:0e:00:02\"",
      "ethernet1.present = \"FALSE\"",
      "ethernet2.addressType = \"generated\"",
      "ethernet2.generatedAddress = \"00:0c:29:0e:00:03\"",
      "ethernet2.present = \"TRUE\"",
  };
  VmwareFolder folder(spec);
  const std::string data = folder.diskPaths()[0];
  const std::string system = folder.diskPaths()[1];
  fillWithData(flatExtentOf(data), 'd');
  fillWithData(flatExtentOf(system), 's');
  TempDir out("orvane-e2e-vmx-out");
  const std::string vm = vmName("vmx-nics");

  CommandResult r =
      runProgram({"-p", folder.path(), "-o", out.path(), "-n", vm, "--yes"});
  ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
  EXPECT_TRUE(hasLine(consoleLines(r.stdoutText),
                      "  Disk order   : scsi0:0, sata0:0 (bios.hddOrder)"))
      << r.stdoutText;

  const std::string xml = domainXml(vm);
  std::vector<std::string> macs;
  static const std::regex kMac("<mac address='([^']*)'/>");
  for (auto it = std::sregex_iterator(xml.begin(), xml.end(), kMac);
       it != std::sregex_iterator(); ++it) {
    macs.push_back((*it)[1]);
  }
  EXPECT_EQ((std::vector<std::string>{"00:50:56:3f:0e:01", "00:0c:29:0e:00:03"}), macs)
      << xml;

  // The first disk of the domain is the one the guest boots, and it holds the
  // system disk's bytes.
  std::smatch first;
  ASSERT_TRUE(std::regex_search(
      xml, first,
      std::regex("<disk type='file' device='disk'>[\\s\\S]*?<source file='([^']*)'")))
      << xml;
  const std::string bootImage = out.path() + "/" + vm + "-sda.qcow2";
  EXPECT_EQ(bootImage, first[1].str()) << xml;
  EXPECT_TRUE(runCommand({"qemu-img", "compare", "-q", "-f", "vmdk", "-F", "qcow2",
                          system, bootImage})
                  .ok());
  EXPECT_TRUE(runCommand({"qemu-img", "compare", "-q", "-f", "vmdk", "-F", "qcow2", data,
                          out.path() + "/" + vm + "-sdb.qcow2"})
                  .ok());
}

}  // namespace
}  // namespace orvane::testing
