// Without -o the images go into libvirt's `default` pool, which the run refreshes
// so that the new volume is listed at once.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "e2e/migrations/host_run.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

/// The default pool's directory, "" when libvirt has none.
std::string defaultPoolPath() {
  const std::string xml = runCommand({"virsh", "pool-dumpxml", "default"}).stdoutText;
  std::smatch m;
  static const std::regex kPath(R"(<path>\s*([^<]*?)\s*</path>)");
  return std::regex_search(xml, m, kPath) ? m[1].str() : "";
}

/// True when `virsh vol-list default` has a row whose name column is `volume`.
bool volumeListed(const std::string& volume) {
  std::istringstream rows(runCommand({"virsh", "vol-list", "default"}).stdoutText);
  for (std::string row; std::getline(rows, row);) {
    std::istringstream columns(row);
    std::string name;
    if (columns >> name && name == volume) return true;
  }
  return false;
}

class DefaultPoolOnHost : public HostRunTest {
 protected:
  void SetUp() override {
    HostRunTest::SetUp();
    if (IsSkipped()) return;
    pool_ = defaultPoolPath();
    if (pool_.empty()) GTEST_SKIP() << "no 'default' pool: run scripts/host-setup";
  }

  void TearDown() override {
    HostRunTest::TearDown();
    // Only the image this test made, then the pool forgets it.
    if (!image_.empty()) {
      std::error_code ec;
      if (fs::remove(image_, ec)) runCommand({"virsh", "pool-refresh", "default"});
    }
  }

  std::string pool_;
  std::string image_;
};

TEST_F(DefaultPoolOnHost, ImageIsPlacedInThePoolAndListed) {
  VmwareFolderSpec spec;
  spec.displayName = "pool01";
  auto folder = std::make_unique<VmwareFolder>(spec);
  const FolderSnapshot before = snapshotFolder(folder->path());
  const std::string vm = vmName("pool");
  const std::string volume = vm + ".qcow2";
  ASSERT_FALSE(fs::exists(pool_ + "/" + volume)) << "left over from an earlier run";
  image_ = pool_ + "/" + volume;

  CommandResult r = runProgram({"-p", folder->path(), "-n", vm, "--yes"});
  ASSERT_EQ(0, r.exitCode) << r.stdoutText << r.stderrText;
  const std::vector<std::string> console = consoleLines(r.stdoutText);
  EXPECT_TRUE(hasLine(console, "  Output dir   : " + pool_));
  EXPECT_TRUE(hasLine(console, "Step 6/7: Registering images with the storage pool..."));
  EXPECT_TRUE(hasLine(console, "  'default' pool refreshed."));
  EXPECT_TRUE(fs::is_regular_file(image_));
  EXPECT_TRUE(volumeListed(volume))
      << runCommand({"virsh", "vol-list", "default"}).stdoutText;
  EXPECT_NE(std::string::npos, domainXml(vm).find("<source file='" + image_ + "'/>"));
  EXPECT_EQ("", describeDifferences(before, snapshotFolder(folder->path())));
}

}  // namespace
}  // namespace orvane::testing
