// Proves on emulated hardware that guests boot (or, for the controls, do not).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "process/command_runner.h"
#include "support/guest_disks.h"
#include "support/qemu_boot.h"
#include "support/temp_dir.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

class BootProof : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingGuestDiskPrerequisites();
    if (!missing.empty()) GTEST_SKIP() << missing;
  }
};

/// Copies a file inside the ESP (first partition, 1 MiB in) of a raw image.
void espCopy(const std::string& image, const std::string& from, const std::string& to) {
  setenv("MTOOLS_SKIP_CHECK", "1", 1);
  CommandResult r = runCommand({"mcopy", "-o", "-i", image + "@@1M", "::" + from, "::" + to});
  ASSERT_TRUE(r.ok()) << r.stderrText;
}

TEST_F(BootProof, UefiDiskWithoutFallbackDoesNotBoot) {
  BootRequest request;
  request.image = guestDiskImage(GuestDiskKind::kUefi);
  request.firmware = GuestFirmware::kUefi;
  BootResult result = bootDisk(request);
  EXPECT_EQ(result.outcome, BootOutcome::kGaveUp) << result.describe();
  std::cout << "[ timing   ] UEFI, no fallback: " << result.seconds << " s\n";
}

TEST_F(BootProof, UefiDiskWithShimAndGrubInFallbackPlaceBoots) {
  TempDir work("orvane-bootproof");
  const std::string image = work.file("fixed.raw");
  fs::copy_file(guestDiskImage(GuestDiskKind::kUefi), image);
  setenv("MTOOLS_SKIP_CHECK", "1", 1);
  ASSERT_TRUE(runCommand({"mmd", "-i", image + "@@1M", "::/EFI/BOOT"}).ok());
  espCopy(image, "/EFI/debian/shimx64.efi", "/EFI/BOOT/BOOTX64.EFI");
  espCopy(image, "/EFI/debian/grubx64.efi", "/EFI/BOOT/grubx64.efi");
  BootRequest request;
  request.image = image;
  request.firmware = GuestFirmware::kUefi;
  BootResult result = bootDisk(request);
  EXPECT_TRUE(result.booted()) << result.describe();
  std::cout << "[ timing   ] UEFI, shim+grub fallback: " << result.seconds << " s\n";
}

TEST_F(BootProof, BiosDiskBootsOnSataAndIde) {
  for (GuestDiskBus bus : {GuestDiskBus::kSata, GuestDiskBus::kIde}) {
    BootRequest request;
    request.image = guestDiskImage(GuestDiskKind::kBios);
    request.bus = bus;
    BootResult result = bootDisk(request);
    EXPECT_TRUE(result.booted()) << result.describe();
    std::cout << "[ timing   ] BIOS " << (bus == GuestDiskBus::kIde ? "IDE" : "SATA") << ": "
              << result.seconds << " s\n";
  }
}

}  // namespace
}  // namespace orvane::testing
