#include "boot_fixer/guestfish_boot_fixer.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
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
  void onTick() override { ++ticks; }
  void onFinish() override { ++finishes; }
  int ticks = 0;
  int finishes = 0;
};

/// A fake guestfish that reads its commands one line at a time and answers like the
/// real one: the listing, is-dir true only for `espDevice` mounted read-only, the
/// probe's answers line by line, a failing command without "-" ends it with exit 1.
/// Every command line it read is kept in order, so tests see the whole session.
class FakeGuestfish {
 public:
  struct Script {
    std::string listing = "/dev/sda1: vfat\n/dev/sda2: ext4\n";
    int listingExit = 0;
    std::string espDevice = "/dev/sda1";
    std::string probe;
    int writeExit = 0;
    std::string dieAt;  ///< a command line that kills the fake (SIGKILL) when read

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
    Script& dyingAt(std::string v) {
      dieAt = std::move(v);
      return *this;
    }
  };
  using S = Script;

  explicit FakeGuestfish(const Script& s) {
    const std::string dir = tools_.dir();
    writeFile(dir + "/listing.out", s.listing);
    writeFile(dir + "/probe.out", s.probe);
    tools_.addRecording(
        "guestfish",
        "while IFS= read -r line; do\n"
        "  printf '%s\\n' \"$line\" >> '" + dir + "/session'\n"
        "  case \"$line\" in\n"
        "    '" + s.dieAt + "') kill -9 $$;;\n"
        "    'echo '*) printf '%s\\n' \"${line#echo }\";;\n"
        "    list-filesystems) cat '" + dir + "/listing.out'; [ " +
            std::to_string(s.listingExit) + " = 0 ] || exit 1;;\n"
        "    -mount-ro*) mounted=\"${line#-mount-ro }\";;\n"
        "    -umount-all) mounted=;;\n"
        "    -is-dir*) if [ \"$mounted\" = '\"" + s.espDevice +
            "\" /' ]; then echo true; else echo false; fi;;\n"
        "    '-exists /EFI/BOOT/BOOTX64.EFI') sed -n 1p '" + dir + "/probe.out';;\n"
        "    '-exists /EFI/Microsoft/Boot/bootmgfw.efi') sed -n 2p '" + dir +
            "/probe.out';;\n"
        "    '-find /EFI') sed -n '3,$p' '" + dir + "/probe.out';;\n"
        "    cp*) [ " + std::to_string(s.writeExit) + " = 0 ] || exit 1;;\n"
        "  esac\n"
        "done\n");
  }
  std::vector<Argv> calls() const { return tools_.calls("guestfish"); }
  /// The commands read, without the marker echoes.
  std::string session() const {
    std::ifstream in(tools_.dir() + "/session");
    std::string line, out;
    while (std::getline(in, line)) {
      if (line.rfind("echo ", 0) != 0) out += line + "\n";
    }
    return out;
  }

 private:
  FakeTools tools_;
};

const Argv kDisks = {"/var/lib/images/my vm-sda.qcow2",
                     "/var/lib/images/my vm-sdb.qcow2"};
const Argv kRo = {"--ro", "-a", kDisks[0], "-a", kDisks[1]};
const Argv kRw = {"--rw", "-a", kDisks[0], "-a", kDisks[1]};

const std::string kList = "run\nlist-filesystems\n";
const std::string kProbe =
    "-exists /EFI/BOOT/BOOTX64.EFI\n-exists /EFI/Microsoft/Boot/bootmgfw.efi\n-find /EFI\n";
std::string isDir(const std::string& device, bool first = true) {
  return std::string(first ? "" : "-umount-all\n") + "-mount-ro \"" + device +
         "\" /\n-is-dir /EFI\n";
}

TEST(GuestfishBootFixer, ShimOnSecondFatPartitionIsCopiedWithItsGrubInOneLaunch) {
  FakeGuestfish fish(
      FakeGuestfish::S()
          .withListing("/dev/sda1: vfat\n/dev/sda2: ext4\n/dev/sdb1: vfat\n")
          .withEsp("/dev/sdb1")
          .withProbe("false\nfalse\n/BOOT\n/ubuntu\n/ubuntu/grubx64.efi\n"
                     "/ubuntu/shimx64.efi\n"));
  FinishCounter progress;
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, &progress, nullptr);

  EXPECT_EQ(r.outcome, BootFixOutcome::kApplied);
  EXPECT_EQ(r.note, "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi");
  EXPECT_EQ(fish.calls(), std::vector<Argv>{kRw});
  // Read-only until the decision; remounted read-write only to write.
  EXPECT_EQ(fish.session(),
            kList + isDir("/dev/sda1") + isDir("/dev/sdb1", false) + kProbe +
                "umount-all\nmount \"/dev/sdb1\" /\nmkdir-p /EFI/BOOT\n"
                "cp \"/EFI/ubuntu/shimx64.efi\" /EFI/BOOT/BOOTX64.EFI\n"
                "cp \"/EFI/ubuntu/grubx64.efi\" /EFI/BOOT/grubx64.efi\n"
                "umount-all\n");
  EXPECT_EQ(progress.finishes, 1);
}

TEST(GuestfishBootFixer, WindowsBootManagerIsCopiedAlone) {
  FakeGuestfish fish(
      FakeGuestfish::S().withProbe("false\ntrue\nMicrosoft/Boot/bootmgfw.efi\n"));
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr, nullptr);

  EXPECT_EQ(r.outcome, BootFixOutcome::kApplied);
  EXPECT_EQ(r.note, "added \\EFI\\BOOT\\BOOTX64.EFI from the Windows boot manager");
  EXPECT_NE(fish.session().find("cp \"/EFI/Microsoft/Boot/bootmgfw.efi\" /EFI/BOOT/BOOTX64.EFI\n"
                                "umount-all\n"),
            std::string::npos);
}

// Outcomes that end before anything is written: the session tells how far it got, and
// the prediction on the source disks (read-only) answers the same.
TEST(GuestfishBootFixer, OutcomesWithoutWrite) {
  struct Case {
    const char* name;
    FakeGuestfish::Script script;
    BootFixOutcome outcome;
    std::string note;
    std::string session;
  };
  using S = FakeGuestfish::S;
  const std::string read = "libguestfs could not read the converted disk(s).";
  const Case cases[] = {
      {"listing fails", S().withListing("/dev/sda1: vfat\n", 1), BootFixOutcome::kError, read,
       kList},
      {"no FAT", S().withListing("/dev/sda1: ext4\n/dev/sda2: swap\n"), BootFixOutcome::kNoEsp,
       "", kList},
      {"FAT without /EFI", S().withEsp("/dev/none"), BootFixOutcome::kNoEsp, "",
       kList + isDir("/dev/sda1")},
      {"fallback present", S().withProbe("true\ntrue\nBOOT/BOOTX64.EFI\n"),
       BootFixOutcome::kApplied, "fallback bootloader already present (left as-is)",
       kList + isDir("/dev/sda1") + kProbe},
      {"empty probe stops at the first silent answer", S().withProbe(""),
       BootFixOutcome::kAmbiguous, "", kList + isDir("/dev/sda1") + kProbe.substr(0, kProbe.find('\n') + 1)},
      {"two grubs", S().withProbe("false\nfalse\na/grubx64.efi\nb/grubx64.efi\n"),
       BootFixOutcome::kAmbiguous, "", kList + isDir("/dev/sda1") + kProbe},
      {"guestfish dies mid-session",
       S().withProbe("false\nfalse\nfedora/grubx64.efi\n").dyingAt("-find /EFI"),
       BootFixOutcome::kError, read, kList + isDir("/dev/sda1") + kProbe},
  };
  for (const Case& c : cases) {
    FakeGuestfish fish(c.script);
    BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr, nullptr);
    EXPECT_EQ(r.outcome, c.outcome) << c.name;
    EXPECT_EQ(r.note, c.note) << c.name;
    EXPECT_EQ(fish.calls(), std::vector<Argv>{kRw}) << c.name;
    EXPECT_EQ(fish.session(), c.session) << c.name;
  }
  for (const Case& c : cases) {
    FakeGuestfish fish(c.script);
    BootFixPrediction p = GuestfishBootFixer().predictEfiFallback(kDisks, nullptr, nullptr);
    EXPECT_EQ(p.result.outcome, c.outcome) << "predicted: " << c.name;
    EXPECT_EQ(fish.calls(), std::vector<Argv>{kRo}) << "predicted: " << c.name;
  }
}

TEST(GuestfishBootFixer, PredictionNamesTheLoaderAndWritesNothing) {
  FakeGuestfish fish(FakeGuestfish::S().withProbe("false\nfalse\n/debian/shimx64.efi\n"));
  BootFixPrediction p = GuestfishBootFixer().predictEfiFallback(kDisks, nullptr, nullptr);

  EXPECT_EQ(p.result.outcome, BootFixOutcome::kApplied);
  EXPECT_EQ(p.result.note, "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi");
  EXPECT_EQ(p.wouldCopyFrom, "/EFI/debian/shimx64.efi");
  EXPECT_EQ(fish.calls(), std::vector<Argv>{kRo});
  EXPECT_EQ(fish.session(), kList + isDir("/dev/sda1") + kProbe);
}

TEST(GuestfishBootFixer, FailedWriteIsAnError) {
  FakeGuestfish fish(
      FakeGuestfish::S().withProbe("false\nfalse\nfedora/grubx64.efi\n", 1));
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, nullptr, nullptr);

  EXPECT_EQ(r.outcome, BootFixOutcome::kError);
  EXPECT_EQ(r.note, "libguestfs failed to write the fallback bootloader.");
}

/// Raises the stop flag after a few ticks, as the signal handler would.
class StopAfterTicks : public ProgressObserver {
 public:
  explicit StopAfterTicks(volatile std::sig_atomic_t& flag) : flag_(flag) {}
  void onTick() override {
    if (++ticks_ == 3) flag_ = SIGINT;
  }

 private:
  volatile std::sig_atomic_t& flag_;
  int ticks_ = 0;
};

// The appliance here is a child that ignores SIGTERM: it must still be gone when the
// fixer returns, and the fixer must return long before the launch would have ended.
TEST(GuestfishBootFixer, SignalWhileTheApplianceRunsLeavesNoProcess) {
  FakeTools tools;
  const std::string pidFile = tools.dir() + "/appliance.pid";
  tools.add("guestfish", "(trap '' TERM; exec sleep 60) &\necho $! > '" + pidFile +
                             "'\nwhile IFS= read -r line; do sleep 60; done\n");
  volatile std::sig_atomic_t flag = 0;
  StopAfterTicks progress(flag);
  const auto started = std::chrono::steady_clock::now();
  BootFixResult r = GuestfishBootFixer().ensureEfiFallback(kDisks, &progress, &flag);
  const auto took = std::chrono::steady_clock::now() - started;

  EXPECT_EQ(r.outcome, BootFixOutcome::kError);
  EXPECT_LT(took, std::chrono::seconds(20));
  std::ifstream in(pidFile);
  pid_t appliance = 0;
  ASSERT_TRUE(in >> appliance);
  EXPECT_EQ(::kill(appliance, 0), -1) << "the appliance outlived the stop";
  EXPECT_EQ(errno, ESRCH);
}

}  // namespace
}  // namespace orvane
