// UEFI guests migrated with the real tools: a shim + GRUB guest becomes bootable
// through the fallback path, and a guest whose loader cannot be told apart is
// refused with nothing left behind. Every guestfish launch costs tens of seconds
// without KVM, so both guests share one test: one launch builds both ESPs and one
// launch reads the result back.
#include <gtest/gtest.h>

#include <memory>

#include "e2e/adapters/esp_disks.h"
#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

const char* kShim = "shim 15.7 signed by the distribution";
const char* kGrub = "grub 2.06 core image with its config prefix";

class UefiMigrationOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    if (!runCommand({"guestfish", "--version"}).ok()) {
      GTEST_SKIP() << "guestfish is missing: run scripts/host-setup";
    }
  }

  /// A UEFI Linux VMware folder whose one disk holds the given partitions.
  std::unique_ptr<VmwareFolder> uefiFolder(const std::string& displayName,
                                           const std::string& raw) {
    VmwareFolderSpec spec;
    spec.displayName = displayName;
    spec.firmware = "efi";
    spec.nicMacs = {};
    spec.disks = {VmwareDiskSpec{"sata0:0", "", 0, "monolithicSparse", raw}};
    return std::make_unique<VmwareFolder>(spec);
  }

  TempDir work_{"orvane-e2e-uefi"};
};

TEST_F(UefiMigrationOnHost, ShimGuestIsMadeBootableAndTwoGrubsAreRefused) {
  // Both guest disks in one guestfish launch, then as raw images for the folders.
  const std::vector<TestDisk> built = {
      {work_.file("shim.qcow2"),
       {{"vfat",
         {{"/EFI/ubuntu/shimx64.efi", kShim},
          {"/EFI/ubuntu/grubx64.efi", kGrub},
          {"/EFI/ubuntu/grub.cfg", "configfile root"}}},
        {"ext4", {{"/etc/os-release", "NAME=Ubuntu"}}}}},
      {work_.file("twogrubs.qcow2"),
       {{"vfat",
         {{"/EFI/ubuntu/grubx64.efi", "grub of one install"},
          {"/EFI/debian/grubx64.efi", "grub of another install"}}}}},
  };
  ASSERT_EQ("", buildTestDisks(built));
  for (const char* name : {"shim", "twogrubs"}) {
    ASSERT_TRUE(runCommand({"qemu-img", "convert", "-f", "qcow2", "-O", "raw",
                            work_.file(std::string(name) + ".qcow2"),
                            work_.file(std::string(name) + ".raw")})
                    .ok());
  }

  auto shimFolder = uefiFolder("ubuntu-efi", work_.file("shim.raw"));
  const FolderSnapshot shimBefore = snapshotFolder(shimFolder->path());
  auto grubsFolder = uefiFolder("two-grubs", work_.file("twogrubs.raw"));
  const FolderSnapshot grubsBefore = snapshotFolder(grubsFolder->path());

  // The dry runs read the source VMDKs read-only and predict both outcomes.
  TempDir dryOut("orvane-e2e-boot-dry");
  CommandResult shimDry = runProgram({"-p", shimFolder->path(), "-o", dryOut.path(), "-n",
                                      vmName("uefi-shim"), "--dry-run"});
  EXPECT_EQ(0, shimDry.exitCode) << shimDry.stdoutText << shimDry.stderrText;
  EXPECT_TRUE(hasLine(consoleLines(shimDry.stdoutText),
                      "  From the source disks: would write the fallback loader from "
                      "/EFI/ubuntu/shimx64.efi."))
      << shimDry.stdoutText;
  CommandResult grubsDry = runProgram({"-p", grubsFolder->path(), "-o", dryOut.path(), "-n",
                                       vmName("uefi-twogrubs"), "--dry-run"});
  EXPECT_EQ(1, grubsDry.exitCode) << grubsDry.stdoutText << grubsDry.stderrText;
  EXPECT_NE(std::string::npos,
            grubsDry.stdoutText.find("  - The source's ESP has no clear bootloader to make "
                                     "bootable (none found, or several candidates): a real "
                                     "run would convert every disk and then end with exit 2"))
      << grubsDry.stdoutText;
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(dryOut.path()));
  EXPECT_EQ("", describeDifferences(shimBefore, snapshotFolder(shimFolder->path())));

  // The shim guest: converted, fixed, defined for UEFI on q35.
  TempDir out("orvane-e2e-out");
  const std::string shimVm = vmName("uefi-shim");
  const std::string shimImage = out.file(shimVm + ".qcow2");
  CommandResult shimRun =
      runProgram({"-p", shimFolder->path(), "-o", out.path(), "-n", shimVm, "--yes"});
  ASSERT_EQ(0, shimRun.exitCode) << shimRun.stdoutText << shimRun.stderrText;
  std::vector<std::string> console = consoleLines(shimRun.stdoutText);
  EXPECT_TRUE(
      hasLine(console, "  UEFI: added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi"));
  EXPECT_TRUE(hasLine(console, "  - Firmware: UEFI (OVMF), Secure Boot disabled."));
  EXPECT_TRUE(hasLine(console,
                      "  - UEFI boot: added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi."));
  const std::string xml = domainXml(shimVm);
  // libvirt keeps the firmware request until first start, then names the loader.
  EXPECT_TRUE(xml.find("<os firmware='efi'>") != std::string::npos ||
              xml.find("<loader") != std::string::npos)
      << xml;
  EXPECT_TRUE(std::regex_search(xml, std::regex("machine='[^']*q35[^']*'"))) << xml;
  EXPECT_NE(std::string::npos, xml.find("<source file='" + shimImage + "'/>")) << xml;
  EXPECT_NE(std::string::npos,
            lastRecordFor(shimVm).find(" result=success source=vmware firmware=efi "
                                       "hw=sata+e1000 duration="))
      << lastRecordFor(shimVm);
  EXPECT_EQ("", describeDifferences(shimBefore, snapshotFolder(shimFolder->path())));

  // The ambiguous guest: refused after conversion, and everything undone.
  TempDir refusedOut("orvane-e2e-out");
  const std::string grubsVm = vmName("uefi-twogrubs");
  CommandResult grubsRun = runProgram(
      {"-p", grubsFolder->path(), "-o", refusedOut.path(), "-n", grubsVm, "--yes"});
  EXPECT_EQ(2, grubsRun.exitCode) << grubsRun.stdoutText << grubsRun.stderrText;
  const std::vector<std::string> errors = consoleLines(grubsRun.stderrText);
  EXPECT_EQ(
      (std::vector<std::string>{
          "ERROR: or several candidates). Refusing rather than ship a VM that",
          "ERROR: may not boot. Inspect the guest's ESP and convert manually."}),
      linesAfter(errors,
                 "ERROR: The ESP has no clear bootloader to make bootable (none found,",
                 2))
      << grubsRun.stderrText;
  EXPECT_TRUE(hasLine(
      errors, "WARN:  Rolling back: deleting " + refusedOut.file(grubsVm + ".qcow2")));
  EXPECT_FALSE(domainDefined(grubsVm));
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(refusedOut.path()));
  EXPECT_NE(std::string::npos,
            lastRecordFor(grubsVm).find(" result=boot_not_guaranteed "));
  EXPECT_EQ("", describeDifferences(grubsBefore, snapshotFolder(grubsFolder->path())));

  // One launch reads the fixed ESP back: the fallback holds the shim's bytes, and
  // the GRUB that shim loads next sits beside it.
  const std::string sum = "checksum sha256 ";
  const std::vector<std::string> a =
      queryDisks({shimImage}, {{0, 1, sum + "/EFI/BOOT/BOOTX64.EFI"},
                               {0, 1, sum + "/EFI/BOOT/grubx64.efi"},
                               {0, 1, sum + "/EFI/ubuntu/shimx64.efi"}});
  ASSERT_EQ(3u, a.size()) << "reading the converted disk back failed";
  EXPECT_EQ(sha256Of(kShim), a[0]);
  EXPECT_EQ(sha256Of(kGrub), a[1]);
  EXPECT_EQ(sha256Of(kShim), a[2]) << "the guest's own loader must stay where it was";
}

}  // namespace
}  // namespace orvane::testing
