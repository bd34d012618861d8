#include <filesystem>

#include "conversion/conversion_fixture.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

TEST_F(ConversionTest, DryRunCollectsEveryHostBlockerAndGoesOn) {
  libvirt_->networkIsActive = false;
  libvirt_->domains["web01"] = "<domain/>";
  Options o = options(true);
  o.outputDir = output_.file("missing");
  EXPECT_EQ(1, run(o));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "Step 1/3: validation passed."));
  EXPECT_TRUE(hasLine(out, "Issues -- a real run would FAIL:"));
  EXPECT_TRUE(hasLine(out, "  - libvirt's 'default' network is defined but not active. Start it:"));
  EXPECT_TRUE(hasLine(out, "      virsh net-start default && virsh net-autostart default"));
  EXPECT_TRUE(hasLine(out, "  - Output directory does not exist or is not a directory: " +
                                output_.file("missing")));
  EXPECT_TRUE(hasLine(out, "  - A VM named 'web01' already exists in Orvane."));
  EXPECT_TRUE(hasLine(out, "(Dry run. A real run would FAIL for the reason(s) above.)"));
}

TEST_F(ConversionTest, RealRunStopsAtTheFirstBlocker) {
  libvirt_->networkIsDefined = false;
  EXPECT_EQ(1, run(options()));
  std::vector<std::string> err = errLines();
  EXPECT_TRUE(hasLine(err, "ERROR: libvirt's 'default' network is not defined; NICs cannot be attached."));
  EXPECT_TRUE(hasLine(err, "ERROR: Define and start it, then retry."));
  EXPECT_EQ(std::string::npos, out_.find("Step 2/7"));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=validation "));
}

TEST_F(ConversionTest, TrailingSlashIsDroppedAndCapitalVmxAccepted) {
  fs::remove(source_.file("web01.vmx"));
  writeVmx("displayName = \"web01\"\nmemsize = \"512\"\nscsi0:0.present = \"TRUE\"\n"
           "scsi0:0.fileName = \"web01.vmdk\"\n",
           "WEB01.VMX");
  Options o = options(true);
  o.path += "/";
  EXPECT_EQ(0, run(o));
  EXPECT_TRUE(hasLine(outLines(), "Source:         vmware (" + source_.path() + ")"));
}

TEST_F(ConversionTest, VmxCountDecidesTheSource) {
  fs::create_directory(source_.file("old.vmx"));  // a directory is not a config file
  EXPECT_EQ(0, run(options(true)));

  writeVmx("displayName = \"b\"\n", "b.vmx");
  resetFakes();
  EXPECT_EQ(1, run(options(true)));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: Multiple .vmx files found in " + source_.path() +
                                       "; cannot determine which VM to convert."));
}

TEST_F(ConversionTest, MissingCommandIsNamed) {
  tools_.add("virt-install", "exit 0");
  fs::remove(fs::path(tools_.dir()) / "qemu-img");
  setenv("PATH", tools_.dir().c_str(), 1);  // hide the host's own qemu-img too
  EXPECT_EQ(1, run(options()));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: Required command not found in PATH: qemu-img"));
}

TEST_F(ConversionTest, NoOutputDirAndNoPoolStops) {
  libvirt_->poolPath.reset();
  Options o = options(true);
  o.outputDir.clear();
  EXPECT_EQ(1, run(o));
  EXPECT_TRUE(hasLine(errLines(),
                       "ERROR: No libvirt 'default' storage pool found, and no --output-dir given."));
}

const std::string kMisread =
    "A VM name must not begin with '-', be a number or have the form of a UUID: virsh "
    "would read it as an option, a domain ID or a UUID.";

TEST_F(ConversionTest, SourceValuesThatStopIngestEvenInADryRun) {
  struct Case {
    std::string vmxExtra;
    std::string vmName;
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {"numvcpus = \"08\"\n", "",
       {"ERROR: Could not read a valid CPU count from the source (got: '08').",
        "ERROR: bad cpu"}},
      // Passes the digit test, cannot be an int; megabytes of it must not crash.
      {"numvcpus = \"" + std::string(2 << 20, '1') + "\"\n", "",
       {"ERROR: Unexpected error: stoi"}},
      {"memsize = \"0\"\n", "",
       {"ERROR: Could not read a valid memory size (MB) from the source (got: '0').",
        "ERROR: bad mem"}},
      {"displayName = \"web 01\"\n", "",
       {"ERROR: The VM name in the source config is 'web 01', which is not a",
        "ERROR: compatible VM name (it contains spaces or special characters).",
        "ERROR: Re-run with --vm-name to set a valid name.", "ERROR: bad source vm-name"}},
      {"", "a/b",
       {"ERROR: The name given with --vm-name is not a valid VM name: 'a/b'",
        "ERROR: Use only letters, digits, and _ . + -  (no spaces or special characters).",
        "ERROR: bad vm-name"}},
      // Names virsh and virt-install would read as an option, an ID or a UUID.
      {"",
       "-web",
       {"ERROR: The name given with --vm-name is not a valid VM name: '-web'",
        "ERROR: " + kMisread, "ERROR: bad vm-name"}},
      {"",
       "6695EB01-f6a4-8304-79aa-97f2502e193f",
       {"ERROR: The name given with --vm-name is not a valid VM name: "
        "'6695EB01-f6a4-8304-79aa-97f2502e193f'",
        "ERROR: " + kMisread, "ERROR: bad vm-name"}},
      {"displayName = \"1\"\n",
       "",
       {"ERROR: The VM name in the source config is '1', which is not a",
        "ERROR: " + kMisread, "ERROR: bad source vm-name"}},
      {"displayName = \"-d\"\n",
       "",
       {"ERROR: The VM name in the source config is '-d', which is not a",
        "ERROR: " + kMisread, "ERROR: bad source vm-name"}},
      // Told apart from a VM without disks, which is what its clear text looks like.
      {"encryption.keySafe = "
       "\"vmware:key/list/(pair/(phrase/x%3d/pass2key%3dPBKDF2-HMAC-SHA-1))\"\n"
       "encryption.data = \"ZW5jcnlwdGVk\"\n",
       "",
       {"ERROR: This VM is encrypted by VMware (encryption.keySafe / encryption.data in "
        "its .vmx),",
        "ERROR: before it can be migrated: remove its encryption there, then re-run.",
        "ERROR: encrypted vm"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.vmxExtra + c.vmName);
    // The first occurrence of a key wins, so the override goes first.
    writeVmx(c.vmxExtra + readFile(source_.file("web01.vmx")));
    resetFakes();
    Options o = options(true);
    o.vmName = c.vmName;
    EXPECT_EQ(1, run(o));
    std::vector<std::string> err = errLines();
    for (const auto& line : c.errors) EXPECT_TRUE(hasLine(err, line)) << line << "\n" << err_;
    EXPECT_EQ(std::string::npos, out_.find("DRY RUN SUMMARY"));
    EXPECT_NE(std::string::npos, lastRecord().find(" result=dry_run_failed "));
    writeVmx(readFile(source_.file("web01.vmx")).substr(c.vmxExtra.size()));
  }
}

TEST_F(ConversionTest, LegacyWindowsGetsIdeAndVirtioWarningsWhenForced) {
  writeVmx("guestOS = \"windows7srv-64\"\n" + readFile(source_.file("web01.vmx")));
  Options o = options(true);
  o.virtio = true;
  EXPECT_EQ(0, run(o));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  Storage/Net  : virtio / virtio"));
  EXPECT_TRUE(hasLine(out, "                 (IDE: pre-Windows-8 guest, most reliable boot)"));
  EXPECT_TRUE(hasLine(out, "  os-variant   : win2k8r2"));
  EXPECT_TRUE(hasLine(out, "  Clock        : localtime"));
  EXPECT_TRUE(hasLine(errLines(),
                       "WARN:  guest to ALREADY have the virtio-win drivers installed, or the VM"));
}

TEST_F(ConversionTest, IdeTakesFourDisksButNotFive) {
  std::string vmx = "displayName = \"w2k8\"\nguestOS = \"windows7srv-64\"\nmemsize = \"1024\"\n";
  for (int i = 0; i < 5; ++i) {
    std::string name = "d" + std::to_string(i) + ".vmdk";
    writeDisk(name);
    vmx += "ide" + std::to_string(i / 2) + ":" + std::to_string(i % 2) + ".present = \"TRUE\"\n";
    vmx += "ide" + std::to_string(i / 2) + ":" + std::to_string(i % 2) + ".fileName = \"" +
           name + "\"\n";
  }
  fs::remove(source_.file("web01.vmx"));
  writeVmx(vmx, "w2k8.vmx");
  EXPECT_EQ(1, run(options(true)));
  EXPECT_TRUE(hasLine(outLines(), "  - This pre-Windows-8 guest must use the IDE bus, but IDE "
                                   "supports at most 4 disks and this VM has 5. Not supported."));
  EXPECT_TRUE(hasLine(outLines(), "        -> " + output_.file("w2k8-hde.qcow2") + "  (hde)"));
}

TEST_F(ConversionTest, SnapshotDeltaIsListedOnTwoLines) {
  writeDisk("web01.vmdk", "parentCID=1a2b3c4d\n");
  EXPECT_EQ(1, run(options(true)));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  - This VM is running on a snapshot (or is a linked clone). These "
                            "disk(s) are deltas on a parent chain: web01.vmdk"));
  EXPECT_TRUE(hasLine(out, "    orvane-v2v converts only consolidated disks. In vSphere, "
                            "delete or consolidate all snapshots for this VM, then re-run."));
}

TEST_F(ConversionTest, HeadsUpWarnsOnlyForPresentFeatures) {
  writeVmx(readFile(source_.file("web01.vmx")) +
           "vtpm.present = \"TRUE\"\nserial0.present = \"TRUE\"\n");
  EXPECT_EQ(0, run(options(true)));
  EXPECT_TRUE(hasLine(outLines(), "Heads-up:"));
  std::vector<std::string> err = errLines();
  EXPECT_TRUE(hasLine(err, "WARN:  Source has a virtual TPM. We do NOT add one. If BitLocker is enabled,"));
  EXPECT_TRUE(hasLine(err, "WARN:  Source has a serial port; it is not recreated. If an application or"));
  EXPECT_EQ(std::string::npos, err_.find("PCI passthrough"));
}

// A static MAC is the one the guest's network knows; a NIC switched off in VMware
// must not come back, nor its stale generated MAC block the run.
TEST_F(ConversionTest, StaticMacsCountAndDisabledNicsDoNot) {
  // Ahead of the default file's NIC, whose own lines then come second and lose.
  writeVmx("ethernet0.present = \"FALSE\"\n"
           "ETHERNET1.Present = \"TRUE\"\nethernet1.addressType = \"static\"\n"
           "ethernet1.address = \"00:50:56:3F:00:10\"\n"
           "ethernet1.generatedAddress = \"00:0c:29:00:00:99\"\n"
           "ethernet2.present = \"TRUE\"\nethernet2.address = \"00:50:56:3F:00:11\"\n" +
           readFile(source_.file("web01.vmx")));
  // The disabled NIC's MAC belongs to another VM now; the static one is in use.
  libvirt_->domains["other"] = "<mac address='00:50:56:ab:cd:ef'/>";
  libvirt_->domains["licence"] = "<mac address='00:50:56:3f:00:10'/>";
  EXPECT_EQ(1, run(options(true)));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  NICs         : 2"));
  EXPECT_TRUE(
      hasLine(out,
              "  - Source NIC MAC 00:50:56:3F:00:10 is already in use on this host by "
              "VM 'licence'. orvane-v2v preserves the source MAC, so this would "
              "collide. Remove or change the MAC on the conflicting VM, then re-run."));
  EXPECT_EQ(std::string::npos, out_.find("00:50:56:AB:CD:EF")) << out_;

  resetFakes();
  ASSERT_EQ(0, run(options()));
  ASSERT_EQ(1u, xml_->specs.size());
  std::vector<std::string> macs;
  for (const DomainSpec::Nic& nic : xml_->specs[0].nics) macs.push_back(nic.mac);
  EXPECT_EQ((std::vector<std::string>{"00:50:56:3F:00:10", "00:50:56:3F:00:11"}), macs);
}

// The disk VMware's BIOS boots from goes first, whatever its bus sorts like.
TEST_F(ConversionTest, HddOrderPutsTheBootDiskFirst) {
  writeDisk("data.vmdk");
  writeVmx("bios.hddOrder = \"scsi0:0\"\n" + readFile(source_.file("web01.vmx")) +
           "sata0.present = \"TRUE\"\nsata0:0.present = \"TRUE\"\n"
           "sata0:0.fileName = \"data.vmdk\"\n");
  EXPECT_EQ(0, run(options(true)));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  Disk order   : scsi0:0, sata0:0 (bios.hddOrder)"));
  EXPECT_NE(std::string::npos,
            out_.find("Disks that would be converted:\n  " + source_.file("web01.vmdk") +
                      "\n        -> " + output_.file("web01-sda.qcow2") + "  (sda)\n"))
      << out_;

  resetFakes();
  ASSERT_EQ(0, run(options()));
  EXPECT_EQ(source_.file("web01.vmdk"), converter_->calls.at(0).first);
  ASSERT_EQ(1u, xml_->specs.size());
  EXPECT_EQ(output_.file("web01-sda.qcow2"), xml_->specs[0].disks.at(0).path);
}

// KVM as defined here cannot start macOS: refused as a boot that cannot be
// guaranteed, before anything is made, and listed with the other issues.
TEST_F(ConversionTest, MacosGuestIsRefusedAsUnbootable) {
  writeVmx("guestOS = \"darwin22-64\"\nfirmware = \"efi\"\n" +
           readFile(source_.file("web01.vmx")));
  libvirt_->domains["web01"] = "<domain/>";
  EXPECT_EQ(1, run(options(true)));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  - A VM named 'web01' already exists in Orvane."));
  EXPECT_TRUE(hasLine(out,
                      "  - This is a macOS guest (guestOS 'darwin22-64'), which does not "
                      "boot on KVM as this tool defines VMs;"));
  EXPECT_TRUE(
      hasLine(out, "    its first boot cannot be guaranteed. Keep it on VMware."));

  resetFakes();
  EXPECT_EQ(2, run(options()));
  EXPECT_TRUE(hasLine(errLines(),
                      "ERROR: its first boot cannot be guaranteed. Keep it on VMware."));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=boot_not_guaranteed "))
      << lastRecord();
  EXPECT_TRUE(converter_->calls.empty());
  EXPECT_TRUE(xml_->specs.empty());
  EXPECT_TRUE(fs::is_empty(output_.path()));
}

}  // namespace
}  // namespace orvane::testing
