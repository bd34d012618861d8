// A termination signal while the real qemu-img converts the second of two disks.
// Sent to the program alone (by a supervisor, say) or typed as Ctrl-C on its
// terminal (the whole job gets it), it stops the converter within seconds: exit
// 130, the first disk's finished image kept and named in one line, the cut-short
// image removed, no failure reported, nothing defined.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "e2e/migrations/host_run.h"
#include "support/pty_program.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Enough real data that converting the second disk takes many seconds.
constexpr std::uint64_t kDiskBytes = 2ULL << 30;

class InterruptOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    folder_ = twoFlatDiskFolder("safety01", kDiskBytes);
    before_ = snapshotFolder(folder_->path());
  }

  // Waits until the program converts the second disk, then a moment more.
  static bool secondDiskConverting(pid_t program) {
    for (int i = 0; i < 600; ++i) {
      if (runCommand({"pgrep", "-P", std::to_string(program), "-f", "--", "-sdb[.]qcow2$"})
              .ok()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  void expectInterruptedKeepingTheFirstImage(const std::string& vm, const std::string& console) {
    EXPECT_EQ(std::string::npos, console.find("ERROR")) << console;
    EXPECT_EQ(std::string::npos, console.find("Rolling back")) << console;
    EXPECT_EQ(std::string::npos, console.find("Step 4/7")) << console;
    EXPECT_NE(std::string::npos,
              console.find("WARN:  Interrupted: kept the finished image(s) " + vm +
                           "-sda.qcow2 in " + out_.path() + " (no VM defined)"))
        << console;
    EXPECT_EQ(std::vector<std::string>{vm + "-sda.qcow2"}, fileNamesIn(out_.path()));
    EXPECT_TRUE(runCommand({"qemu-img", "compare", "-q", "-f", "vmdk", "-F", "qcow2",
                            folder_->diskPaths()[0], out_.file(vm + "-sda.qcow2")})
                    .ok());
    EXPECT_FALSE(domainDefined(vm));
    const std::string record = lastRecordFor(vm);
    EXPECT_NE(std::string::npos, record.find(" result=interrupted source=vmware ")) << record;
    EXPECT_TRUE(record.ends_with(" reason=\"SIGINT (Ctrl-C)\"")) << record;
    EXPECT_EQ("", describeDifferences(before_, snapshotFolder(folder_->path())));
  }

  std::unique_ptr<VmwareFolder> folder_;
  FolderSnapshot before_;
  TempDir out_{"orvane-e2e-safety-out"};
};

TEST_F(InterruptOnHost, SigintToTheProgramAloneStopsTheConverterWithinSeconds) {
  const std::string vm = vmName("safety-sigint");
  PtyProgram program({ORVANE_BINARY, "-p", folder_->path(), "-o", out_.path(), "-n", vm, "-y"});
  ASSERT_TRUE(secondDiskConverting(program.pid())) << program.output();
  const Clock::time_point signalled = Clock::now();
  kill(program.pid(), SIGINT);
  EXPECT_EQ(130, program.wait(std::chrono::seconds(60))) << program.output();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                                           signalled);
  std::cerr << "signal to exit: " << took.count() << " ms\n";
  EXPECT_LT(took, std::chrono::seconds(5));
  expectInterruptedKeepingTheFirstImage(vm, program.output());
}

TEST_F(InterruptOnHost, CtrlCOnTheTerminalEndsTheJobAsInterrupted) {
  const std::string vm = vmName("safety-ctrlc");
  PtyProgram program({ORVANE_BINARY, "-p", folder_->path(), "-o", out_.path(), "-n", vm, "-y"});
  ASSERT_TRUE(secondDiskConverting(program.pid())) << program.output();
  const Clock::time_point signalled = Clock::now();
  program.type("\x03");
  EXPECT_EQ(130, program.wait(std::chrono::seconds(60))) << program.output();
  EXPECT_LT(Clock::now() - signalled, std::chrono::seconds(5));
  expectInterruptedKeepingTheFirstImage(vm, program.output());
}

}  // namespace
}  // namespace orvane::testing
