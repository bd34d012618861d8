#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "conversion/conversion.h"
#include "conversion/conversion_fixture.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> fileNamesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

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

TEST_F(StepsTest, FailingDiskRollsBackEveryTargetTheRunClaimed) {
  useThreeDisks("bios");
  converter_->failAtCall = 1;
  // What qemu-img leaves when the output file system fills up: a partial image.
  converter_->during = [&](int call) {
    if (call == 1) writeFile(image('b'), "half an image");
  };
  converter_->failure = CommandResult{1, "", "qemu-img: Could not open 'disk1.vmdk'\n"};
  writeFile(output_.file("other.qcow2"), "not ours");
  EXPECT_EQ(1, run(options()));
  EXPECT_EQ(2u, converter_->calls.size());
  EXPECT_TRUE(hasLine(errLines(), "ERROR: qemu-img conversion failed for " +
                                       source_.file("disk1.vmdk") +
                                       ": qemu-img: Could not open 'disk1.vmdk'"));
  // The run claimed all three paths before writing, so all three are its own: the
  // half-written one too, and the one it never reached. Nothing else is touched.
  for (char disk : {'a', 'b', 'c'}) {
    EXPECT_TRUE(hasLine(errLines(), "WARN:  Rolling back: deleting " + image(disk))) << disk;
  }
  EXPECT_EQ((std::vector<std::string>{"other.qcow2"}), fileNamesIn(output_.path()));
  EXPECT_EQ(std::string::npos, err_.find("ERROR: qemu-img conversion failed\n"));
  EXPECT_NE(std::string::npos, lastRecord().find(" result=failure stage=disk_convert "));
}

TEST_F(StepsTest, ConversionFailureQuotesTheToolsMessageWithoutItsProgress) {
  struct Case {
    CommandResult failure;
    std::string detail;
  };
  const Case cases[] = {
      {{127, "", ""}, ""},
      {{1, "qemu-img: out of luck\n", ""}, "qemu-img: out of luck"},
      // A converter killed at 1%: its progress is no message at all.
      {{1, "    (0.00/100%)\r    (1.00/100%)\r", ""}, ""},
      {{1, "    (0.00/100%)\r    (1.00/100%)\r",
        "qemu-img: error while writing at byte 0: No space left on device\n"},
       "qemu-img: error while writing at byte 0: No space left on device"},
      {{1, "    (0.00/100%)\rqemu-img: lost\n    (1.00/100%)\r", ""}, "qemu-img: lost"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.detail);
    resetFakes();
    converter_->failAtCall = 0;
    converter_->failure = c.failure;
    EXPECT_EQ(1, run(options()));
    EXPECT_TRUE(hasLine(errLines(), "ERROR: qemu-img conversion failed for " +
                                        source_.file("web01.vmdk") + ": " + c.detail))
        << err_;
  }
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

// A signal that arrives while a disk converts: the converter is stopped (it ends
// like a killed qemu-img, with nothing but progress on its output) or finishes
// anyway. Either way the run is interrupted, not failed.
TEST_F(StepsTest, SignalDuringAConversionInterruptsTheRunAndKeepsOnlyFinishedImages) {
  struct Case {
    int signalAtCall;
    bool converterStopped;
    std::vector<std::string> left;
  };
  const CommandResult stopped{143, "    (0.00/100%)\r    (7.00/100%)\r", ""};
  const Case cases[] = {
      {0, true, {}},
      {1, true, {"web01-sda.qcow2"}},
      {1, false, {"web01-sda.qcow2", "web01-sdb.qcow2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.signalAtCall) + (c.converterStopped ? " stopped" : ""));
    resetFakes();
    gPendingSignal = 0;
    for (const auto& entry : fs::directory_iterator(output_.path())) fs::remove(entry.path());
    useThreeDisks("bios");
    converter_->during = [&](int call) {
      if (call == c.signalAtCall) gPendingSignal = SIGTERM;
    };
    if (c.converterStopped) {
      converter_->failAtCall = c.signalAtCall;
      converter_->failure = stopped;
    }
    EXPECT_EQ(143, run(options()));
    EXPECT_EQ(static_cast<std::size_t>(c.signalAtCall + 1), converter_->calls.size());
    EXPECT_EQ(c.left, fileNamesIn(output_.path()));
    // No failure and no rollback is reported; one line says what was kept, where.
    std::vector<std::string> warnings;
    for (const std::string& line : errLines()) {
      EXPECT_NE(0u, line.find("ERROR:")) << line;
      if (line.starts_with("WARN:")) warnings.push_back(line);
    }
    if (c.left.empty()) {
      EXPECT_TRUE(warnings.empty());
    } else {
      std::string names = c.left[0] + (c.left.size() > 1 ? ", " + c.left[1] : "");
      EXPECT_EQ(std::vector<std::string>{"WARN:  Interrupted: kept the finished image(s) " +
                                         names + " in " + output_.path() +
                                         " (no VM defined); convert the rest by hand, or "
                                         "remove them before a re-run."},
                warnings);
    }
    EXPECT_TRUE(fixer_->calls.empty());
    EXPECT_TRUE(libvirt_->definedXml.empty());
    EXPECT_NE(std::string::npos, lastRecord().find(" result=interrupted ")) << lastRecord();
  }
}

// What another run (or anyone) makes after this run's checks and before it writes:
// a file at a target path, or a VM of the same name. This run must stop, touch
// neither, and remove only what it created itself.
class RacingLibvirt : public FakeLibvirtBackend {
 public:
  std::function<void()> afterChecks;
  // The MAC check is the last question asked before the prompt.
  std::vector<std::pair<std::string, std::string>> dumpAllDomainXml() override {
    if (afterChecks) afterChecks();
    return FakeLibvirtBackend::dumpAllDomainXml();
  }
};

TEST_F(StepsTest, PathOrNameTakenAfterTheChecksStopsTheRunBeforeItWrites) {
  struct Case {
    bool takePath;
    std::string error;
    std::vector<std::string> left;
  };
  const Case cases[] = {
      {true,
       "ERROR: Target image already exists (it will not be overwritten): " +
           output_.file("web01-sdb.qcow2"),
       {"web01-sdb.qcow2"}},
      {false, "ERROR: A VM named 'web01' already exists in Orvane.", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    resetFakes();
    for (const auto& entry : fs::directory_iterator(output_.path())) fs::remove(entry.path());
    auto racing = std::make_unique<RacingLibvirt>();
    racing->poolPath = output_.path();
    RacingLibvirt* raced = racing.get();
    racing->afterChecks = [&] {
      if (c.takePath) {
        writeFile(output_.file("web01-sdb.qcow2"), "another run's image");
      } else {
        raced->domains["web01"] = "<domain/>";
      }
    };
    libvirtOwner_ = std::move(racing);
    libvirt_ = raced;
    useThreeDisks("bios");
    Options o = options();
    o.assumeYes = false;
    EXPECT_EQ(1, run(o, "yes\n"));
    EXPECT_TRUE(hasLine(errLines(), c.error)) << err_;
    EXPECT_TRUE(converter_->calls.empty());
    EXPECT_EQ(c.left, fileNamesIn(output_.path()));
    if (c.takePath) {
      EXPECT_EQ("another run's image", readFile(output_.file("web01-sdb.qcow2")));
    }
    EXPECT_TRUE(libvirt_->undefined.empty());
    EXPECT_NE(std::string::npos, lastRecord().find(" result=failure ")) << lastRecord();
  }
}

}  // namespace
}  // namespace orvane::testing
