// The output directory fills up while the real qemu-img writes the second disk:
// the run reports qemu-img's own error, removes the first disk's finished image
// and the second's half-written one (it claimed both paths), and ends with 1; the
// same run then succeeds once there is room, with nothing left to clear by hand.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

class DiskFullOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    // isolateLogDir() has put this process in a private mount namespace, so the
    // small file system is seen by the program and its children, not by the host.
    if (mount("tmpfs", out_.path().c_str(), "tmpfs", 0, "size=8m") != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs: " << std::strerror(errno);
    }
    mounted_ = true;
  }

  void TearDown() override {
    HostRunTest::TearDown();
    if (mounted_) umount2(out_.path().c_str(), MNT_DETACH);
  }

  TempDir out_{"orvane-e2e-full"};
  bool mounted_ = false;
};

TEST_F(DiskFullOnHost, SecondDiskDoesNotFitAndTheFirstIsRolledBack) {
  const std::unique_ptr<VmwareFolder> source = twoFlatDiskFolder("full01", 32ULL << 20);
  const VmwareFolder& folder = *source;
  const FolderSnapshot before = snapshotFolder(folder.path());
  const std::string vm = vmName("full");

  CommandResult r =
      runProgram({"-p", folder.path(), "-o", out_.path(), "-n", vm, "--yes"});
  EXPECT_EQ(1, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> errors = consoleLines(r.stderrText);
  const std::string failed =
      "ERROR: qemu-img conversion failed for " + folder.diskPaths()[1] + ": qemu-img: ";
  auto line = std::find_if(errors.begin(), errors.end(),
                           [&](const std::string& l) { return l.starts_with(failed); });
  ASSERT_NE(errors.end(), line) << r.stderrText;
  EXPECT_NE(std::string::npos, line->find("No space left on device")) << *line;
  for (const char* disk : {"-sda.qcow2", "-sdb.qcow2"}) {
    EXPECT_TRUE(hasLine(errors, "WARN:  Rolling back: deleting " + out_.file(vm + disk)))
        << r.stderrText;
  }
  EXPECT_TRUE(hasLine(consoleLines(r.stdoutText),
                      "Partial conversion rolled back; no Orvane VM left behind."));
  EXPECT_EQ(std::vector<std::string>{}, fileNamesIn(out_.path()));
  // No error line carries qemu-img's progress output.
  EXPECT_EQ(std::string::npos, r.stderrText.find("/100%)")) << r.stderrText;
  EXPECT_FALSE(domainDefined(vm));
  EXPECT_NE(std::string::npos,
            lastRecordFor(vm).find(" result=failure stage=disk_convert "));
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder.path())));

  // With room again, the retry is not refused over a leftover image.
  ASSERT_EQ(0, mount("tmpfs", out_.path().c_str(), "tmpfs", MS_REMOUNT, "size=128m"))
      << std::strerror(errno);
  CommandResult retry =
      runProgram({"-p", folder.path(), "-o", out_.path(), "-n", vm, "--yes"});
  EXPECT_EQ(0, retry.exitCode) << retry.stdoutText << retry.stderrText;
  EXPECT_TRUE(domainDefined(vm));
}

}  // namespace
}  // namespace orvane::testing
