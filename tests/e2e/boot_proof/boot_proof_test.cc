// The boot proof: a guest migrated by orvane-v2v really boots on the hardware the
// program chose, under firmware that knows nothing about it (empty UEFI variables),
// and the UEFI control shows that it would not have booted without the boot fix.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <iostream>

#include "process/command_runner.h"
#include "support/guest_disks.h"
#include "support/qemu_boot.h"
#include "support/temp_dir.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

/// A VMware-style MAC unique to this process and guest, so that a domain left by a
/// crashed earlier run, or a concurrent run of the suite, is never a MAC collision.
std::string uniqueMac(int guest) {
  const unsigned pid = static_cast<unsigned>(::getpid());
  char mac[32];
  std::snprintf(mac, sizeof mac, "00:0c:29:%02x:%02x:%02x", (pid >> 8) & 0xff, pid & 0xff,
                guest & 0xff);
  return mac;
}

std::string uniqueName(const std::string& what) {
  return "orvane-bootproof-" + what + "-" + std::to_string(::getpid());
}

/// One run of the program on a folder; undefines what it defined and deletes the
/// images when it goes out of scope, whatever the test concluded.
class Migration {
 public:
  Migration(const VmwareFolder& folder, const std::string& name)
      : name_(name), out_("orvane-bootproof-out") {
    run_ = runCommand({ORVANE_BINARY, "-p", folder.path(), "-o", out_.path(), "-n", name_,
                       "--yes"});
    image_ = out_.file(name_ + ".qcow2");
    CommandResult xml = runCommand({"virsh", "dumpxml", "--inactive", name_});
    if (xml.ok()) domainXml_ = xml.stdoutText;
  }
  ~Migration() { runCommand({"virsh", "undefine", "--nvram", name_}); }
  Migration(const Migration&) = delete;
  Migration& operator=(const Migration&) = delete;

  const CommandResult& run() const { return run_; }
  const std::string& image() const { return image_; }
  const std::string& domainXml() const { return domainXml_; }
  /// The program's output, for failure messages.
  std::string transcript() const { return run_.stdoutText + run_.stderrText; }

 private:
  std::string name_;
  TempDir out_;
  CommandResult run_;
  std::string image_;
  std::string domainXml_;
};

void reportTiming(const std::string& what, const BootResult& result) {
  std::cout << "[ timing   ] " << what << ": " << result.seconds << " s\n";
  ::testing::Test::RecordProperty(what + " seconds", static_cast<int>(result.seconds + 0.5));
}

class BootProof : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingGuestDiskPrerequisites();
    if (!missing.empty()) GTEST_SKIP() << missing;
    if (!runCommand({"virsh", "version"}).ok()) {
      GTEST_SKIP() << "libvirtd does not answer `virsh version`: run scripts/host-setup";
    }
  }

  /// A folder holding `kind`'s disk as a VMDK on `controllerKey`.
  static VmwareFolderSpec folderSpec(GuestDiskKind kind, const std::string& displayName,
                                     const std::string& guestOs, int guest) {
    VmwareFolderSpec spec;
    spec.displayName = displayName;
    spec.guestOs = guestOs;
    spec.firmware = kind == GuestDiskKind::kUefi ? "efi" : "";
    spec.nicMacs = {uniqueMac(guest)};
    VmwareDiskSpec disk;
    disk.controllerKey = "scsi0:0";
    disk.rawImage = guestDiskImage(kind);
    spec.disks = {disk};
    return spec;
  }
};

TEST_F(BootProof, MigratedUefiGuestBootsWithEmptyNvramAndWouldNotWithoutTheFix) {
  VmwareFolder folder(folderSpec(GuestDiskKind::kUefi, "bootproof-uefi", "debian12-64", 1));
  const FolderSnapshot before = snapshotFolder(folder.path());

  Migration migration(folder, uniqueName("uefi"));
  ASSERT_EQ(migration.run().exitCode, 0) << migration.transcript();
  EXPECT_EQ(describeDifferences(before, snapshotFolder(folder.path())), "");
  ASSERT_TRUE(fs::is_regular_file(migration.image())) << migration.transcript();
  ASSERT_FALSE(migration.domainXml().empty()) << "the program defined no domain";

  BootRequest request = bootRequestFromDomainXml(migration.domainXml());
  ASSERT_EQ(request.firmware, GuestFirmware::kUefi) << migration.domainXml();
  request.image = migration.image();
  request.format = "qcow2";
  const BootResult fixed = bootDisk(request);
  reportTiming("UEFI migrated", fixed);
  EXPECT_TRUE(fixed.booted()) << fixed.describe();

  // The control: the same disk converted without the boot fix, on the same hardware.
  TempDir work("orvane-bootproof-control");
  request.image = work.file("unfixed.qcow2");
  CommandResult converted = runCommand({"qemu-img", "convert", "-f", "vmdk", "-O", "qcow2",
                                        folder.diskPaths().at(0), request.image});
  ASSERT_TRUE(converted.ok()) << converted.stderrText;
  const BootResult unfixed = bootDisk(request);
  reportTiming("UEFI unfixed control", unfixed);
  // Giving up, not a timeout or a qemu failure: the firmware really found nothing.
  EXPECT_EQ(unfixed.outcome, BootOutcome::kGaveUp) << unfixed.describe();
}

TEST_F(BootProof, MigratedBiosGuestBootsOnSata) {
  VmwareFolder folder(folderSpec(GuestDiskKind::kBios, "bootproof-bios", "debian12-64", 2));
  Migration migration(folder, uniqueName("bios"));
  ASSERT_EQ(migration.run().exitCode, 0) << migration.transcript();

  BootRequest request = bootRequestFromDomainXml(migration.domainXml());
  ASSERT_EQ(request.firmware, GuestFirmware::kBios) << migration.domainXml();
  ASSERT_EQ(request.bus, GuestDiskBus::kSata) << migration.domainXml();
  request.image = migration.image();
  request.format = "qcow2";
  const BootResult result = bootDisk(request);
  reportTiming("BIOS SATA migrated", result);
  EXPECT_TRUE(result.booted()) << result.describe();
}

// A pre-Windows-8 guest is put on IDE; the disk holds the Linux test guest, which is
// enough to prove the bus, machine and firmware the program chose can boot a disk.
TEST_F(BootProof, MigratedLegacyWindowsBiosGuestBootsOnIde) {
  VmwareFolder folder(
      folderSpec(GuestDiskKind::kBios, "bootproof-w2k8", "windows7srv-64", 3));
  Migration migration(folder, uniqueName("w2k8"));
  ASSERT_EQ(migration.run().exitCode, 0) << migration.transcript();

  BootRequest request = bootRequestFromDomainXml(migration.domainXml());
  ASSERT_EQ(request.firmware, GuestFirmware::kBios) << migration.domainXml();
  ASSERT_EQ(request.bus, GuestDiskBus::kIde) << migration.domainXml();
  request.image = migration.image();
  request.format = "qcow2";
  const BootResult result = bootDisk(request);
  reportTiming("BIOS IDE migrated", result);
  EXPECT_TRUE(result.booted()) << result.describe();
}

}  // namespace
}  // namespace orvane::testing
