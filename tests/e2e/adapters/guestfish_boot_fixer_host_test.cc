// GuestfishBootFixer against the real guestfish, on disks built with guestfish.
// Every launch costs tens of seconds without KVM, so all scenarios share one test:
// one launch builds every disk, the fixer runs once per scenario, and one more
// launch reads every result back.

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "boot_fixer/guestfish_boot_fixer.h"
#include "e2e/adapters/esp_disks.h"
#include "process/command_runner.h"
#include "progress/progress_observer.h"
#include "support/temp_dir.h"

namespace orvane {
namespace {

using testing::DiskQuery;
using testing::TempDir;
using testing::TestDisk;
using testing::TestPartition;

bool guestfishAvailable() { return runCommand({"guestfish", "--version"}).ok(); }

struct Scenario {
  const char* name;
  std::vector<TestPartition> partitions;
  BootFixOutcome outcome;
  std::string note;
};

TEST(GuestfishBootFixerOnHost, EverySituation) {
  if (!guestfishAvailable())
    GTEST_SKIP() << "guestfish is missing: run scripts/host-setup";

  const std::vector<Scenario> scenarios = {
      {"shim and grub under ubuntu",
       {{"vfat",
         {{"/EFI/ubuntu/shimx64.efi", "shim loader for ubuntu"},
          {"/EFI/ubuntu/grubx64.efi", "grub loader for ubuntu"},
          {"/EFI/ubuntu/mmx64.efi", "mok manager"}}}},
       BootFixOutcome::kApplied,
       "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi"},
      {"Windows boot manager",
       {{"vfat",
         {{"/EFI/Microsoft/Boot/bootmgfw.efi", "windows boot manager"},
          {"/EFI/ubuntu/grubx64.efi", "grub next to windows"}}}},
       BootFixOutcome::kApplied,
       "added \\EFI\\BOOT\\BOOTX64.EFI from the Windows boot manager"},
      {"fallback already present",
       {{"vfat",
         {{"/EFI/BOOT/BOOTX64.EFI", "the original fallback"},
          {"/keep/original.efi", "the original fallback"},
          {"/EFI/ubuntu/shimx64.efi", "shim that must not be copied"},
          {"/EFI/ubuntu/grubx64.efi", "grub that must not be copied"}}}},
       BootFixOutcome::kApplied,
       "fallback bootloader already present (left as-is)"},
      {"two grubs",
       {{"vfat",
         {{"/EFI/ubuntu/grubx64.efi", "grub one"},
          {"/EFI/debian/grubx64.efi", "grub two"}}}},
       BootFixOutcome::kAmbiguous,
       ""},
      {"no ESP",
       {{"vfat", {{"/data/readme.txt", "FAT without /EFI"}}},
        {"ext4", {{"/EFI/ubuntu/shimx64.efi", "not on FAT"}}}},
       BootFixOutcome::kNoEsp,
       ""},
  };

  TempDir dir("orvane-e2e-boot-esp");
  std::vector<TestDisk> disks;
  std::vector<std::string> images;
  for (std::size_t i = 0; i < scenarios.size(); ++i) {
    images.push_back(dir.file("disk" + std::to_string(i) + ".qcow2"));
    disks.push_back({images.back(), scenarios[i].partitions});
  }
  ASSERT_EQ(testing::buildTestDisks(disks), "");

  for (std::size_t i = 0; i < scenarios.size(); ++i) {
    SCOPED_TRACE(scenarios[i].name);
    BootFixResult r = GuestfishBootFixer().ensureEfiFallback({images[i]}, nullptr, nullptr);
    EXPECT_EQ(r.outcome, scenarios[i].outcome);
    EXPECT_EQ(r.note, scenarios[i].note);
  }

  const std::string sum = "checksum sha256 ";
  const std::vector<DiskQuery> queries = {
      {0, 1, sum + "/EFI/BOOT/BOOTX64.EFI"},             // 0
      {0, 1, sum + "/EFI/ubuntu/shimx64.efi"},           // 1
      {0, 1, sum + "/EFI/BOOT/grubx64.efi"},             // 2
      {0, 1, sum + "/EFI/ubuntu/grubx64.efi"},           // 3
      {1, 1, sum + "/EFI/BOOT/BOOTX64.EFI"},             // 4
      {1, 1, sum + "/EFI/Microsoft/Boot/bootmgfw.efi"},  // 5
      {1, 1, "exists /EFI/BOOT/grubx64.efi"},            // 6
      {2, 1, sum + "/EFI/BOOT/BOOTX64.EFI"},             // 7
      {2, 1, sum + "/keep/original.efi"},                // 8
      {2, 1, "exists /EFI/BOOT/grubx64.efi"},            // 9
      {3, 1, "is-dir /EFI/BOOT"},                        // 10
      {4, 1, "is-dir /EFI"},                             // 11
  };
  std::vector<std::string> a = testing::queryDisks(images, queries);
  ASSERT_EQ(a.size(), queries.size()) << "reading the disks back failed";

  // The shim became the fallback, and the GRUB it loads sits beside it.
  EXPECT_EQ(a[0].size(), 64u) << a[0];
  EXPECT_EQ(a[0], a[1]);
  EXPECT_EQ(a[2].size(), 64u) << a[2];
  EXPECT_EQ(a[2], a[3]);
  EXPECT_NE(a[0], a[2]);
  // Windows: the boot manager alone.
  EXPECT_EQ(a[4].size(), 64u) << a[4];
  EXPECT_EQ(a[4], a[5]);
  EXPECT_EQ(a[6], "false");
  // An existing fallback is left byte for byte, and nothing joins it.
  EXPECT_EQ(a[7].size(), 64u) << a[7];
  EXPECT_EQ(a[7], a[8]);
  EXPECT_EQ(a[9], "false");
  // Ambiguous and no-ESP disks are not written at all.
  EXPECT_EQ(a[10], "false");
  EXPECT_EQ(a[11], "false");
}

/// Raises the stop flag once the appliance has been starting for a while, as the
/// conversion's signal handler would.
class StopDuringLaunch : public ProgressObserver {
 public:
  explicit StopDuringLaunch(volatile std::sig_atomic_t& flag) : flag_(flag) {}
  void onTick() override {
    if (++ticks_ == 50) flag_ = SIGINT;
  }

 private:
  volatile std::sig_atomic_t& flag_;
  int ticks_ = 0;
};

/// Processes whose command line names `needle` (qemu names the disk it was given).
int processesNaming(const std::string& needle) {
  CommandResult r = runCommand({"pgrep", "-f", "-c", "--", needle});
  return r.ok() ? std::stoi(r.stdoutText) : 0;
}

TEST(GuestfishBootFixerOnHost, SignalDuringTheLaunchLeavesNoAppliance) {
  if (!guestfishAvailable())
    GTEST_SKIP() << "guestfish is missing: run scripts/host-setup";
  TempDir dir("orvane-e2e-boot-stop");
  const std::string image = dir.file("boot-stop.qcow2");
  ASSERT_TRUE(runCommand({"qemu-img", "create", "-f", "qcow2", image, "64M"}).ok());

  volatile std::sig_atomic_t flag = 0;
  StopDuringLaunch progress(flag);
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback({image}, &progress, &flag);
  EXPECT_EQ(r.outcome, BootFixOutcome::kError);
  EXPECT_EQ(processesNaming(image), 0) << "an appliance outlived the stop";
  EXPECT_EQ(processesNaming("guestfish --rw -a " + image), 0);
}

}  // namespace
}  // namespace orvane
