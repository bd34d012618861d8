// Two runs at once. Of two runs of one VM into one directory, both past their
// checks and waiting at the prompt, the one answered second (while the other
// converts) must stop without touching the other's image or VM; whichever order
// they are answered in, exactly one VM is defined and its image is the source's.
// Runs of different VMs into one directory do not disturb each other.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "e2e/migrations/host_run.h"
#include "support/pty_program.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kDiskBytes = 1ULL << 30;

std::unique_ptr<VmwareFolder> oneFlatDiskFolder(const std::string& name,
                                                const std::string& mac) {
  VmwareFolderSpec spec;
  spec.displayName = name;
  spec.nicMacs = {mac};
  spec.disks = {VmwareDiskSpec{"scsi0:0", "", kDiskBytes, "monolithicFlat"}};
  auto folder = std::make_unique<VmwareFolder>(spec);
  fillWithData(flatExtentOf(folder->diskPaths()[0]), 'r');
  return folder;
}

bool converting(pid_t program) {
  for (int i = 0; i < 600; ++i) {
    if (runCommand({"pgrep", "-P", std::to_string(program), "-x", "qemu-img"}).ok()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

class ConcurrentRunsOnHost : public HostRunTest {};

TEST_F(ConcurrentRunsOnHost, SameVmIntoOneDirectoryDefinesExactlyOne) {
  const std::unique_ptr<VmwareFolder> source =
      oneFlatDiskFolder("race01", "00:0c:29:5a:00:01");
  const std::string disk = source->diskPaths()[0];
  for (bool firstStartedWins : {true, false}) {
    SCOPED_TRACE(firstStartedWins ? "first started answered first" : "reverse");
    TempDir out("orvane-e2e-safety-race");
    const std::string vm = vmName("safety-race");
    const std::string image = out.file(vm + ".qcow2");
    const std::vector<std::string> argv = {
        ORVANE_BINARY, "-p", source->path(), "-o", out.path(), "-n", vm};
    PtyProgram started1(argv);
    ASSERT_TRUE(started1.waitForOutput("Proceed? (yes/no): ", seconds(60)));
    PtyProgram started2(argv);
    ASSERT_TRUE(started2.waitForOutput("Proceed? (yes/no): ", seconds(60)));
    PtyProgram& winner = firstStartedWins ? started1 : started2;
    PtyProgram& loser = firstStartedWins ? started2 : started1;

    winner.type("yes\n");
    ASSERT_TRUE(converting(winner.pid())) << winner.output();
    loser.type("yes\n");
    EXPECT_EQ(1, loser.wait(seconds(60))) << loser.output();
    EXPECT_NE(std::string::npos,
              loser.output().find("ERROR: Target image already exists (it will not be "
                                  "overwritten): " +
                                  image))
        << loser.output();
    EXPECT_EQ(std::string::npos, loser.output().find("Rolling back")) << loser.output();
    EXPECT_EQ(0, winner.wait(seconds(600))) << winner.output();

    EXPECT_TRUE(domainDefined(vm));
    EXPECT_EQ(std::vector<std::string>{vm + ".qcow2"}, fileNamesIn(out.path()));
    EXPECT_TRUE(runCommand({"qemu-img", "compare", "-q", "-f", "vmdk", "-F", "qcow2",
                            disk, image})
                    .ok());
    undefineIfDefined(vm);
  }
}

TEST_F(ConcurrentRunsOnHost, DifferentVmsIntoOneDirectoryBothSucceed) {
  const std::unique_ptr<VmwareFolder> first =
      oneFlatDiskFolder("pair01", "00:0c:29:5a:00:02");
  const std::unique_ptr<VmwareFolder> second =
      oneFlatDiskFolder("pair02", "00:0c:29:5a:00:03");
  TempDir out("orvane-e2e-safety-pair");
  const std::string vm1 = vmName("safety-pair1");
  const std::string vm2 = vmName("safety-pair2");
  PtyProgram run1(
      {ORVANE_BINARY, "-p", first->path(), "-o", out.path(), "-n", vm1, "-y"});
  PtyProgram run2(
      {ORVANE_BINARY, "-p", second->path(), "-o", out.path(), "-n", vm2, "-y"});
  EXPECT_EQ(0, run1.wait(seconds(600))) << run1.output();
  EXPECT_EQ(0, run2.wait(seconds(600))) << run2.output();
  EXPECT_TRUE(domainDefined(vm1));
  EXPECT_TRUE(domainDefined(vm2));
  EXPECT_EQ((std::vector<std::string>{vm1 + ".qcow2", vm2 + ".qcow2"}),
            fileNamesIn(out.path()));
  undefineIfDefined(vm1);
  undefineIfDefined(vm2);
}

}  // namespace
}  // namespace orvane::testing
