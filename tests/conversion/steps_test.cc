#include <algorithm>
#include <filesystem>

#include "conversion/conversion_fixture.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;


class StepsTest : public ConversionTest {
 protected:
  void useThreeDisks(const std::string& firmware) {
    std::string vmx = "displayName = \"web01\"\nmemsize = \"1024\"\nguestOS = \"debian11-64\"\n"
                      "firmware = \"" + firmware + "\"\n"
                      "ethernet0.generatedAddress = \"00:50:56:00:00:01\"\n"
                      "ethernet1.generatedAddress = \"00:50:56:00:00:02\"\n";
    for (int i = 0; i < 3; ++i) {
      std::string name = "disk" + std::to_string(i) + ".vmdk";
      writeDisk(name);
      vmx += "sata0:" + std::to_string(i) + ".present = \"TRUE\"\nsata0:" + std::to_string(i) +
             ".fileName = \"" + name + "\"\n";
    }
    writeVmx(vmx);
  }
  std::string image(char letter) const {
    return output_.file(std::string("web01-sd") + letter + ".qcow2");
  }
};

TEST_F(StepsTest, SecondDiskFailingRollsBackOnlyTheFirst) {
  useThreeDisks("bios");
  converter_->failAtCall = 1;
  converter_->failure = CommandResult{1, "", "qemu-img: Could not open 'disk1.vmdk'\n"};
  EXPECT_EQ(1, run(options()));
  EXPECT_EQ(2u, converter_->calls.size());
  EXPECT_TRUE(hasLine(errLines(), "ERROR: qemu-img conversion failed for " +
                                       source_.file("disk1.vmdk") +
                                       ": qemu-img: Could not open 'disk1.vmdk'"));
  EXPECT_TRUE(hasLine(errLines(), "WARN:  Rolling back: deleting " + image('a')));
  EXPECT_FALSE(fs::exists(image('a')));
  EXPECT_EQ(std::string::npos, err_.find("Rolling back: deleting " + image('b')));
  EXPECT_EQ(std::string::npos, err_.find("ERROR: qemu-img conversion failed\n"));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=disk_convert "));
}

TEST_F(StepsTest, ConversionFailureFallsBackToStdout) {
  converter_->failAtCall = 0;
  converter_->failure = CommandResult{127, "", ""};
  EXPECT_EQ(1, run(options()));
  EXPECT_TRUE(hasLine(errLines(),
                       "ERROR: qemu-img conversion failed for " + source_.file("web01.vmdk") + ": "));
}

TEST_F(StepsTest, UefiOutcomesDecideTheExitCode) {
  struct Case {
    BootFixResult result;
    int exitCode;
    std::string firstError;
    std::string stage;
  };
  const Case cases[] = {
      {{BootFixOutcome::kAmbiguous, ""}, 2,
       "ERROR: The ESP has no clear bootloader to make bootable (none found,",
       " result=boot_not_guaranteed "},
      {{BootFixOutcome::kNoEsp, ""}, 2,
       "ERROR: Firmware is EFI but no EFI System Partition was found on the",
       " result=boot_not_guaranteed "},
      {{BootFixOutcome::kError, "libguestfs failed to write the fallback bootloader."}, 1,
       "ERROR: libguestfs failed to write the fallback bootloader.",
       " result=failure stage=boot_fix "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.firstError);
    resetFakes();
    useThreeDisks("efi");
    fixer_->result = c.result;
    EXPECT_EQ(c.exitCode, run(options()));
    ASSERT_EQ(1u, fixer_->calls.size());
    EXPECT_EQ((std::vector<std::string>{image('a'), image('b'), image('c')}), fixer_->calls[0]);
    EXPECT_TRUE(hasLine(errLines(), c.firstError)) << err_;
    EXPECT_TRUE(libvirt_->definedXml.empty());
    for (char d : {'a', 'b', 'c'}) EXPECT_FALSE(fs::exists(image(d)));
    EXPECT_NE(std::string::npos, lastRecord().find(c.stage)) << lastRecord();
  }
}

// The fixer stops its appliance and answers kError when the signal comes: that is an
// interrupt (128 + n), not a failed fix, and nothing is defined.
TEST_F(StepsTest, SignalDuringTheBootFixIsAnInterrupt) {
  useThreeDisks("efi");
  fixer_->result = {BootFixOutcome::kError, "libguestfs could not read the converted disk(s)."};
  fixer_->during = [] { gPendingSignal = SIGINT; };
  EXPECT_EQ(128 + SIGINT, run(options()));
  EXPECT_EQ(std::string::npos, err_.find("The UEFI boot fix failed.")) << err_;
  EXPECT_TRUE(libvirt_->definedXml.empty());
}

TEST_F(StepsTest, UefiGuestIsDefinedWithUefiAndTheNoteReachesTheSummary) {
  useThreeDisks("efi");
  EXPECT_EQ(0, run(options()));
  ASSERT_EQ(1u, xml_->specs.size());
  const DomainSpec& spec = xml_->specs[0];
  EXPECT_TRUE(spec.uefi);
  EXPECT_EQ("web01", spec.vmName);
  EXPECT_EQ(1024, spec.memoryMb);
  EXPECT_EQ(1, spec.vcpus);
  EXPECT_EQ("detect=on,require=off", spec.osinfo);
  EXPECT_EQ("utc", spec.clockOffset);
  ASSERT_EQ(3u, spec.disks.size());
  EXPECT_EQ(image('c'), spec.disks[2].path);
  EXPECT_EQ("sata", spec.disks[2].bus);
  ASSERT_EQ(2u, spec.nics.size());
  EXPECT_EQ("00:50:56:00:00:02", spec.nics[1].mac);
  EXPECT_EQ("e1000", spec.nics[1].model);
  std::vector<std::string> out = outLines();
  EXPECT_TRUE(hasLine(out, "  UEFI: added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi"));
  EXPECT_TRUE(hasLine(out, "  - UEFI boot: added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi."));
}

TEST_F(StepsTest, BiosGuestSkipsTheFixerAndAGuestWithoutNicsGetsOne) {
  writeVmx("displayName = \"web01\"\nmemsize = \"512\"\nscsi0:0.present = \"TRUE\"\n"
           "scsi0:0.fileName = \"web01.vmdk\"\n");
  EXPECT_EQ(0, run(options()));
  EXPECT_TRUE(fixer_->calls.empty());
  EXPECT_TRUE(hasLine(outLines(), "Step 4/7: BIOS guest -- no UEFI boot fix needed."));
  ASSERT_EQ(1u, xml_->specs[0].nics.size());
  EXPECT_EQ("", xml_->specs[0].nics[0].mac);
  EXPECT_EQ("e1000", xml_->specs[0].nics[0].model);
  EXPECT_TRUE(hasLine(outLines(), "  Explicit output directory; no pool refresh needed."));
  for (const auto& call : libvirt_->calls) EXPECT_NE(0u, call.find("refreshPool"));
}

TEST_F(StepsTest, ToolErrorTextsAreLoggedLineByLine) {
  xml_->error = "ERROR    line one\nline two\n";
  EXPECT_EQ(1, run(options()));
  std::vector<std::string> err = errLines();
  auto at = std::find(err.begin(), err.end(), "ERROR: virt-install (XML generation) failed:");
  ASSERT_NE(err.end(), at);
  ASSERT_GE(err.end() - at, 3);
  EXPECT_EQ("ERROR: ERROR    line one", at[1]);
  EXPECT_EQ("ERROR: line two", at[2]);
  EXPECT_TRUE(libvirt_->undefined.empty());
  EXPECT_FALSE(fs::exists(output_.file("web01.qcow2")));

  resetFakes();
  libvirt_->defineError = "error: Failed to define domain\n";
  EXPECT_EQ(1, run(options()));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: virsh define failed:"));
  EXPECT_TRUE(hasLine(errLines(), "ERROR: error: Failed to define domain"));
  EXPECT_TRUE(libvirt_->undefined.empty());
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=vm_create "));
}

TEST_F(StepsTest, DefaultPoolIsRefreshedAndAFailedRefreshOnlyWarns) {
  Options o = options();
  o.outputDir.clear();
  libvirt_->refreshResult = false;
  EXPECT_EQ(0, run(o));
  EXPECT_TRUE(hasLine(libvirt_->calls, "refreshPool default"));
  EXPECT_TRUE(hasLine(errLines(),
                       "WARN:  Could not refresh the 'default' pool (images are still in place)."));
}

}  // namespace
}  // namespace orvane::testing
