// SIGINT while the real qemu-img converts a disk of real data. Sent to the program
// alone (by a supervisor, say), it lets the conversion finish, stops before the
// next step, keeps the image it made and defines nothing. Sent to the whole job,
// as Ctrl-C at a terminal does, it ends qemu-img too.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

// Enough real data that the conversion lasts seconds, not a blink.
constexpr std::uint64_t kDiskBytes = 2ULL << 30;

class InterruptOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    VmwareFolderSpec spec;
    spec.displayName = "big01";
    // A flat extent is the raw disk itself: filled in place, no second copy.
    spec.disks = {VmwareDiskSpec{"scsi0:0", "", kDiskBytes, "monolithicFlat"}};
    folder_ = std::make_unique<VmwareFolder>(spec);
    fillWithData(flatExtentOf(folder_->diskPaths()[0]), 'i');
    before_ = snapshotFolder(folder_->path());
  }

  std::unique_ptr<VmwareFolder> folder_;
  FolderSnapshot before_;
  TempDir out_{"orvane-e2e-out"};
};

TEST_F(InterruptOnHost, SigintToTheProgramKeepsTheFinishedImageAndDefinesNothing) {
  const std::string vm = vmName("sigint");
  const std::string image = out_.file(vm + ".qcow2");
  CommandResult r =
      runProgramWhile(waitForChild("qemu-img") + "\nsleep 0.5\nkill -INT $pid",
                      {"-p", folder_->path(), "-o", out_.path(), "-n", vm, "-y"});
  EXPECT_EQ(130, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> console = consoleLines(r.stdoutText);
  EXPECT_TRUE(hasLine(console, "All disks converted."));
  // The signal came while converting: the run stopped before the boot fix step.
  EXPECT_EQ(std::string::npos, r.stdoutText.find("Step 4/7")) << r.stdoutText;
  EXPECT_EQ(std::string::npos, r.stderrText.find("Rolling back")) << r.stderrText;
  EXPECT_FALSE(domainDefined(vm));
  // What was made is kept, and it is whole.
  ASSERT_TRUE(fs::is_regular_file(image));
  EXPECT_TRUE(runCommand({"qemu-img", "check", "-q", image}).ok());
  const std::string record = lastRecordFor(vm);
  EXPECT_NE(std::string::npos, record.find(" result=interrupted source=vmware "))
      << record;
  EXPECT_TRUE(record.ends_with(" reason=\"SIGINT (Ctrl-C)\"")) << record;
  EXPECT_EQ("", describeDifferences(before_, snapshotFolder(folder_->path())));
}

TEST_F(InterruptOnHost, CtrlCForTheWholeJobEndsTheConverterAndFailsTheRun) {
  const std::string vm = vmName("ctrlc");
  CommandResult r =
      runProgramWhile(waitForChild("qemu-img") + "\nsleep 0.5\n/bin/kill -s INT -- -$pid",
                      {"-p", folder_->path(), "-o", out_.path(), "-n", vm, "-y"}, true);
  // qemu-img dies of the signal, so the step fails before the run's next check for
  // a pending signal: an ordinary failure, rolled back.
  EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> errors = consoleLines(r.stderrText);
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const std::string& line) {
    return line.starts_with("ERROR: qemu-img conversion failed for " +
                            folder_->diskPaths()[0] + ": ");
  })) << r.stderrText;
  EXPECT_FALSE(domainDefined(vm));
  // The half-written image of the failed disk is not the run's to claim or delete.
  EXPECT_EQ(std::vector<std::string>{vm + ".qcow2"}, fileNamesIn(out_.path()));
  const std::string record = lastRecordFor(vm);
  EXPECT_NE(std::string::npos, record.find(" result=failure stage=disk_convert "))
      << record;
  EXPECT_EQ("", describeDifferences(before_, snapshotFolder(folder_->path())));
}

}  // namespace
}  // namespace orvane::testing
