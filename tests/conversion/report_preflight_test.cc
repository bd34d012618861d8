#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "conversion/conversion_fixture.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

TEST_F(ConversionTest, CleanDryRunReportIsExact) {
  EXPECT_EQ(0, run(options(true)));
  const std::vector<std::string> expected = {
      "",
      "=== DRY RUN SUMMARY ===",
      "VM name:        web01",
      "Source:         vmware (" + source_.path() + ")",
      "CPUs / Memory:  2 / 2048 MB",
      "Firmware:       bios",
      "Storage / Net:  sata / e1000",
      "Clock:          utc",
      "Output dir:     " + output_.path(),
      "",
      "Disks that would be converted:",
      "  " + source_.file("web01.vmdk"),
      "        -> " + output_.file("web01.qcow2") + "  (sda)",
      "",
      "(Dry run. No changes made. A real run would proceed.)",
  };
  std::vector<std::string> out = outLines();
  auto start = std::find(out.begin(), out.end(), "=== DRY RUN SUMMARY ===");
  ASSERT_NE(out.end(), start);
  std::vector<std::string> report(start - 1, out.end());
  EXPECT_EQ(expected, report);
  EXPECT_TRUE(hasLine(out, "Step 3/3: Preparing the dry-run summary..."));
  EXPECT_TRUE(converter_->calls.empty());
  EXPECT_TRUE(fixer_->predictCalls.empty()) << "a BIOS guest's dry run launches no appliance";
  EXPECT_NE(std::string::npos, lastRecord().find(" result=dry_run "));
}

// The dry run asks the fixer about the source disks and reports what a real run
// would do; a predicted refusal is an issue of its own, naming exit 2.
TEST_F(ConversionTest, UefiDryRunPredictsTheBootFix) {
  struct Case {
    const char* name;
    BootFixPrediction prediction;
    int exitCode;
    std::vector<std::string> lines;
  };
  const std::string from = "  From the source disks: ";
  const std::string exit2 =
      ": a real run would convert every disk and then end with exit 2 (boot could not be "
      "guaranteed).";
  const Case cases[] = {
      {"copy",
       {{BootFixOutcome::kApplied, "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi"},
        "/EFI/debian/shimx64.efi"},
       0,
       {from + "would write the fallback loader from /EFI/debian/shimx64.efi."}},
      {"present",
       {{BootFixOutcome::kApplied, "fallback bootloader already present (left as-is)"}, ""},
       0,
       {from + "already bootable (\\EFI\\BOOT\\BOOTX64.EFI is present; left as-is)."}},
      {"no ESP",
       {{BootFixOutcome::kNoEsp, ""}, ""},
       1,
       {from + "the boot fix would refuse (no EFI System Partition).",
        "  - Firmware is EFI but no EFI System Partition was found on the source disk(s)" + exit2,
        "    Check the VM's firmware setting and its disks in VMware, then re-run."}},
      {"ambiguous",
       {{BootFixOutcome::kAmbiguous, ""}, ""},
       1,
       {from + "the boot fix would refuse (no clear bootloader on the ESP).",
        "  - The source's ESP has no clear bootloader to make bootable (none found, or several "
        "candidates)" + exit2,
        "    Inspect the guest's ESP and convert manually."}},
      {"unreadable is no blocker",
       {{BootFixOutcome::kError, "libguestfs could not read the source disk(s)."}, ""},
       0,
       {"  Could not be predicted: libguestfs could not read the source disk(s). A real run "
        "checks the converted disks."}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    resetFakes();
    writeVmx("firmware = \"EFI\"\n" + readFile(source_.file("web01.vmx")));
    fixer_->prediction = c.prediction;
    EXPECT_EQ(c.exitCode, run(options(true)));
    std::vector<std::string> out = outLines();
    EXPECT_TRUE(hasLine(out, "Firmware:       efi (OVMF, Secure Boot off)"));
    EXPECT_TRUE(hasLine(
        out, "UEFI boot fix would run (libguestfs): ensure \\EFI\\BOOT\\BOOTX64.EFI exists."));
    for (const std::string& line : c.lines) EXPECT_TRUE(hasLine(out, line)) << line;
    EXPECT_EQ(fixer_->predictCalls, std::vector<std::vector<std::string>>{{source_.file("web01.vmdk")}});
    EXPECT_TRUE(fixer_->calls.empty());
  }
}

TEST_F(ConversionTest, SignalDuringTheBootPredictionInterruptsTheDryRun) {
  writeVmx("firmware = \"EFI\"\n" + readFile(source_.file("web01.vmx")));
  fixer_->during = [] { gPendingSignal = SIGTERM; };
  EXPECT_EQ(128 + SIGTERM, run(options(true)));
  EXPECT_EQ(std::string::npos, out_.find("=== DRY RUN SUMMARY ==="));
}

TEST_F(ConversionTest, OnlyAPlainYesConfirms) {
  for (const std::string answer : {"Yes\n", "y\n", "yes \n", ""}) {
    SCOPED_TRACE(answer);
    resetFakes();
    Options o = options();
    o.assumeYes = false;
    EXPECT_EQ(1, run(o, answer));
    EXPECT_TRUE(converter_->calls.empty());
    EXPECT_TRUE(hasLine(outLines(), "Aborted by user."));
    EXPECT_NE(std::string::npos, out_.find("Proceed? (yes/no): "));
  }
  resetFakes();
  Options o = options();
  o.assumeYes = false;
  EXPECT_EQ(0, run(o, "yes\n"));
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "About to convert '" + source_.path() + "' into Orvane VM 'web01':"));
  EXPECT_TRUE(hasLine(out, "  - Convert 1 disk(s) to qcow2 in " + output_.path()));
  EXPECT_TRUE(hasLine(out, "  - Hardware: sata storage, e1000 network"));
}

TEST_F(ConversionTest, AssumeYesPrintsNoPlan) {
  EXPECT_EQ(0, run(options()));
  EXPECT_EQ(std::string::npos, out_.find("Proceed?"));
  EXPECT_EQ(std::string::npos, out_.find("About to convert"));
}

TEST_F(ConversionTest, LeftoverTargetIsABlockerAndIsNotTouched) {
  writeFile(output_.file("web01.qcow2"), "precious");
  EXPECT_EQ(1, run(options()));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: Target image already exists (it will not be "
                                   "overwritten): " + output_.file("web01.qcow2")));
  EXPECT_EQ("precious", readFile(output_.file("web01.qcow2")));
  EXPECT_TRUE(converter_->calls.empty());
}

TEST_F(ConversionTest, DanglingLinkAtATargetCountsAsExisting) {
  fs::create_symlink(output_.file("nowhere"), output_.file("web01.qcow2"));
  EXPECT_EQ(1, run(options(true)));
  EXPECT_NE(std::string::npos, out_.find("Target image already exists"));
}

TEST_F(ConversionTest, MacCollisionIsCaseInsensitiveAndDomainsAreReadAtOnce) {
  writeVmx(readFile(source_.file("web01.vmx")) +
           "ethernet1.generatedAddress = \"00:50:56:00:00:02\"\n"
           "ethernet2.generatedAddress = \"\"\n");
  libvirt_->domains["db01"] = "<interface><mac address='00:50:56:ab:cd:ef'/></interface>";
  libvirt_->domains["quoted"] = "<mac address=\"00:50:56:00:00:02\"/>";  // not recognised
  libvirt_->domains["other"] = "<mac address='52:54:00:00:00:01'/>";
  EXPECT_EQ(1, run(options(true)));
  EXPECT_TRUE(hasLine(outLines(),
                       "  - Source NIC MAC 00:50:56:AB:CD:EF is already in use on this host by VM "
                       "'db01'. orvane-v2v preserves the source MAC, so this would collide. "
                       "Remove or change the MAC on the conflicting VM, then re-run."));
  EXPECT_EQ(std::string::npos, out_.find("00:50:56:00:00:02 is already"));
  EXPECT_EQ(1, std::count(libvirt_->calls.begin(), libvirt_->calls.end(), "dumpAllDomainXml"));
  EXPECT_EQ(0, std::count(libvirt_->calls.begin(), libvirt_->calls.end(), "dumpDomainXml db01"));
}

TEST_F(ConversionTest, UefiGuestNeedsGuestfish) {
  fs::remove(fs::path(tools_.dir()) / "guestfish");
  setenv("PATH", tools_.dir().c_str(), 1);
  writeVmx("firmware = \"efi\"\n" + readFile(source_.file("web01.vmx")));
  EXPECT_EQ(1, run(options(true)));
  EXPECT_TRUE(hasLine(outLines(), "  - This is a UEFI guest, which needs guestfish "
                                   "(libguestfs-tools) for the boot fix, but it isn't "
                                   "installed. Install libguestfs-tools and retry."));
}

TEST_F(ConversionTest, LowSpaceOnlyWarns) {
  // A sparse file claims far more than any test machine has free.
  writeFile(source_.file("WEB01-FLAT.VMDK"), "");
  ASSERT_EQ(0, truncate(source_.file("WEB01-FLAT.VMDK").c_str(), 1LL << 43));
  EXPECT_EQ(0, run(options(true)));
  std::vector<std::string> err = errLines();
  auto low = std::find_if(err.begin(), err.end(), [](const std::string& l) {
    return l.rfind("WARN:  Low space: ", 0) == 0;
  });
  ASSERT_NE(err.end(), low) << err_;
  EXPECT_NE(std::string::npos, low->find(" MB free; the source disks"));
  ASSERT_LT(low + 2, err.end());
  EXPECT_EQ(0u, low[1].find("WARN:    total ~8388608 MB"));
  EXPECT_EQ("WARN:    smaller, so it might still succeed).", low[2]);
}

}  // namespace
}  // namespace orvane::testing
