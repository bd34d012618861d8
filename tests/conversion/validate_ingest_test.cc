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

}  // namespace
}  // namespace orvane::testing
