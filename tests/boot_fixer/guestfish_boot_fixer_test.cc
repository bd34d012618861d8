#include "boot_fixer/guestfish_boot_fixer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "progress/progress_observer.h"
#include "support/fake_tools.h"

namespace orvane {
namespace {

using testing::FakeTools;
using testing::writeFile;
using Argv = std::vector<std::string>;

class FinishCounter : public ProgressObserver {
 public:
  void onFinish() override { ++finishes; }
  int finishes = 0;
};

/// A fake guestfish that answers like the real one for the commands the fixer
/// uses: the listing, one is-dir per device (true for `espDevice` only), the probe
/// script's output, and the write's exit code.
class FakeGuestfish {
 public:
  struct Script {
    std::string listing = "/dev/sda1: vfat\n/dev/sda2: ext4\n";
    int listingExit = 0;
    std::string espDevice = "/dev/sda1";
    std::string probe;
    int writeExit = 0;

    Script& withListing(std::string v, int exitCode = 0) {
      listing = std::move(v);
      listingExit = exitCode;
      return *this;
    }
    Script& withEsp(std::string v) {
      espDevice = std::move(v);
      return *this;
    }
    Script& withProbe(std::string v, int writeExitCode = 0) {
      probe = std::move(v);
      writeExit = writeExitCode;
      return *this;
    }
  };
  using S = Script;

  explicit FakeGuestfish(const Script& s) {
    writeFile(tools_.dir() + "/listing.out", s.listing);
    writeFile(tools_.dir() + "/probe.out", s.probe);
    tools_.addRecording("guestfish",
                        "case \"$*\" in\n"
                        "  *list-filesystems*) cat '" +
                            tools_.dir() + "/listing.out'; exit " +
                            std::to_string(s.listingExit) +
                            ";;\n"
                            "  *\"mount-ro " +
                            s.espDevice +
                            " / : is-dir\"*) echo true; exit 0;;\n"
                            "  *is-dir*) echo false; exit 0;;\n"
                            "esac\n"
                            "if [ \"$1\" = --rw ]; then exit " +
                            std::to_string(s.writeExit) +
                            "; fi\n"
                            "cat '" +
                            tools_.dir() + "/probe.out'\n");
  }
  std::vector<Argv> calls() const { return tools_.calls("guestfish"); }
  std::vector<std::string> stdins() const { return tools_.stdins("guestfish"); }

 private:
  FakeTools tools_;
};

const Argv kDisks = {"/var/lib/images/my vm-sda.qcow2",
                     "/var/lib/images/my vm-sdb.qcow2"};
const Argv kRo = {"--ro", "-a", kDisks[0], "-a", kDisks[1]};
const Argv kRw = {"--rw", "-a", kDisks[0], "-a", kDisks[1]};

Argv concat(const Argv& a, const Argv& b) {
  Argv out = a;
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

Argv isDir(const std::string& device) {
  return concat(kRo, {"run", ":", "mount-ro", device, "/", ":", "is-dir", "/EFI"});
}

std::string probeScript(const std::string& device) {
  return "run\nmount-ro " + device +
         " /\nexists /EFI/BOOT/BOOTX64.EFI\nexists /EFI/Microsoft/Boot/bootmgfw.efi\n"
         "find /EFI\n";
}

TEST(GuestfishBootFixer, ShimOnSecondFatPartitionIsCopiedWithItsGrub) {
  FakeGuestfish fish(
      FakeGuestfish::S()
          .withListing("/dev/sda1: vfat\n/dev/sda2: ext4\n/dev/sdb1: vfat\n")
          .withEsp("/dev/sdb1")
          .withProbe("false\nfalse\n/BOOT\n/ubuntu\n/ubuntu/grubx64.efi\n"
                     "/ubuntu/shimx64.efi\n"));
  FinishCounter progress;
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, &progress);

  EXPECT_EQ(r.outcome, BootFixOutcome::kApplied);
  EXPECT_EQ(r.note, "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi");
  std::vector<Argv> expected = {concat(kRo, {"run", ":", "list-filesystems"}),
                                isDir("/dev/sda1"), isDir("/dev/sdb1"), kRo, kRw};
  EXPECT_EQ(fish.calls(), expected);
  std::vector<std::string> stdins = {
      "", "", "", probeScript("/dev/sdb1"),
      "run\nmount /dev/sdb1 /\nmkdir-p /EFI/BOOT\n"
      "cp /EFI/ubuntu/shimx64.efi /EFI/BOOT/BOOTX64.EFI\n"
      "cp /EFI/ubuntu/grubx64.efi /EFI/BOOT/grubx64.efi\n"};
  EXPECT_EQ(fish.stdins(), stdins);
  EXPECT_EQ(progress.finishes, 5) << "every run reports to the observer";
}

TEST(GuestfishBootFixer, WindowsBootManagerIsCopiedAlone) {
  FakeGuestfish fish(
      FakeGuestfish::S().withProbe("false\ntrue\nMicrosoft/Boot/bootmgfw.efi\n"));
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr);

  EXPECT_EQ(r.outcome, BootFixOutcome::kApplied);
  EXPECT_EQ(r.note, "added \\EFI\\BOOT\\BOOTX64.EFI from the Windows boot manager");
  ASSERT_EQ(fish.stdins().size(), 4u);
  EXPECT_EQ(fish.stdins()[3],
            "run\nmount /dev/sda1 /\nmkdir-p /EFI/BOOT\n"
            "cp /EFI/Microsoft/Boot/bootmgfw.efi /EFI/BOOT/BOOTX64.EFI\n");
}

// Outcomes that end before anything is written: the calls made tell how far it got.
TEST(GuestfishBootFixer, OutcomesWithoutWrite) {
  struct Case {
    const char* name;
    FakeGuestfish::Script script;
    BootFixOutcome outcome;
    std::string note;
    std::vector<Argv> calls;
  };
  using S = FakeGuestfish::S;
  const Argv list = concat(kRo, {"run", ":", "list-filesystems"});
  const Case cases[] = {
      {"listing fails",
       S().withListing("/dev/sda1: vfat\n", 1),
       BootFixOutcome::kError,
       "libguestfs could not read the converted disk(s).",
       {list}},
      {"no FAT",
       S().withListing("/dev/sda1: ext4\n/dev/sda2: swap\n"),
       BootFixOutcome::kNoEsp,
       "",
       {list}},
      {"FAT without /EFI",
       S().withEsp("/dev/none"),
       BootFixOutcome::kNoEsp,
       "",
       {list, isDir("/dev/sda1")}},
      {"fallback present",
       S().withProbe("true\ntrue\nBOOT/BOOTX64.EFI\n"),
       BootFixOutcome::kApplied,
       "fallback bootloader already present (left as-is)",
       {list, isDir("/dev/sda1"), kRo}},
      {"empty probe",
       S().withProbe(""),
       BootFixOutcome::kAmbiguous,
       "",
       {list, isDir("/dev/sda1"), kRo}},
      {"two grubs",
       S().withProbe("false\nfalse\na/grubx64.efi\nb/grubx64.efi\n"),
       BootFixOutcome::kAmbiguous,
       "",
       {list, isDir("/dev/sda1"), kRo}},
  };
  for (const Case& c : cases) {
    FakeGuestfish fish(c.script);
    BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr);
    EXPECT_EQ(r.outcome, c.outcome) << c.name;
    EXPECT_EQ(r.note, c.note) << c.name;
    EXPECT_EQ(fish.calls(), c.calls) << c.name;
  }
}

TEST(GuestfishBootFixer, FailedWriteIsAnError) {
  FakeGuestfish fish(
      FakeGuestfish::S().withProbe("false\nfalse\nfedora/grubx64.efi\n", 1));
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr);

  EXPECT_EQ(r.outcome, BootFixOutcome::kError);
  EXPECT_EQ(r.note, "libguestfs failed to write the fallback bootloader.");
  ASSERT_EQ(fish.calls().size(), 4u);
  EXPECT_EQ(fish.calls()[3], kRw);
}

}  // namespace
}  // namespace orvane
