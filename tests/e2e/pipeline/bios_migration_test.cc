// A BIOS Linux guest migrated end to end with the real tools, then refused when the
// same folder comes again.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "process/command_runner.h"
#include "support/console_lines.h"
#include "support/private_log_dir.h"
#include "support/temp_dir.h"
#include "support/vmware_folder.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

/// A raw image with a recognisable pattern at a few offsets, so that a conversion
/// that dropped or moved data cannot compare equal.
void writePatternedRaw(const std::string& path, std::uint64_t size, char seed) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::string block(64 * 1024, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(seed + i % 251);
  for (std::uint64_t offset : {std::uint64_t{0}, size / 3, size - block.size()}) {
    out.seekp(static_cast<std::streamoff>(offset));
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  out.close();
  fs::resize_file(path, size);
}

class BiosMigrationOnHost : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runCommand({"virsh", "version"}).ok()) {
      GTEST_SKIP() << "libvirtd does not answer: run scripts/host-setup first";
    }
    std::string why = isolateLogDir();
    if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
    name_ = "orvane-e2e-bios-" + std::to_string(getpid());
    writePatternedRaw(raws_.file("a.raw"), 32ULL << 20, 'a');
    writePatternedRaw(raws_.file("b.raw"), 24ULL << 20, 'b');
    VmwareFolderSpec spec;
    spec.displayName = "web01";
    spec.numvcpus = 2;
    spec.memsize = 768;
    spec.nicMacs = {"00:0c:29:4f:8e:35", "00:50:56:AB:00:02"};
    spec.disks = {VmwareDiskSpec{"scsi0:0", "", 0, "monolithicSparse", raws_.file("a.raw")},
                  VmwareDiskSpec{"scsi0:1", "", 0, "monolithicSparse", raws_.file("b.raw")}};
    folder_ = std::make_unique<VmwareFolder>(spec);
  }

  void TearDown() override {
    if (!name_.empty()) {
      if (!runCommand({"virsh", "undefine", name_, "--nvram"}).ok()) {
        runCommand({"virsh", "undefine", name_});
      }
    }
  }

  CommandResult migrate() {
    return runCommand({ORVANE_BINARY, "-p", folder_->path(), "-o", output_.path(), "-n", name_,
                       "--yes"});
  }
  std::string image(const std::string& dev) const {
    return output_.file(name_ + "-" + dev + ".qcow2");
  }

  TempDir raws_{"orvane-e2e-raw"};
  TempDir output_{"orvane-e2e-out"};
  std::unique_ptr<VmwareFolder> folder_;
  std::string name_;
};

TEST_F(BiosMigrationOnHost, MigratesThenRefusesTheSameFolderAgain) {
  FolderSnapshot sourceBefore = snapshotFolder(folder_->path());

  CommandResult first = migrate();
  ASSERT_EQ(0, first.exitCode) << first.stdoutText << first.stderrText;

  std::string xml = runCommand({"virsh", "dumpxml", name_}).stdoutText;
  for (const char* dev : {"sda", "sdb"}) {
    std::regex disk("<source file='" + image(dev) + "'[^>]*/>\\s*(<backingStore/>\\s*)?"
                    "<target dev='" + std::string(dev) + "' bus='sata'/>");
    EXPECT_TRUE(std::regex_search(xml, disk)) << dev << "\n" << xml;
  }
  for (const char* mac : {"00:0c:29:4f:8e:35", "00:50:56:ab:00:02"}) {
    std::regex nic("<mac address='" + std::string(mac) + "'/>\\s*<source network='default'/>"
                   "[\\s\\S]*?<model type='e1000'/>");
    EXPECT_TRUE(std::regex_search(xml, nic)) << mac << "\n" << xml;
  }
  EXPECT_EQ("shut off\n\n", runCommand({"virsh", "domstate", name_}).stdoutText);

  const std::vector<std::string>& disks = folder_->diskPaths();
  ASSERT_EQ(2u, disks.size());
  EXPECT_TRUE(runCommand({"qemu-img", "compare", "-f", "vmdk", "-F", "qcow2", disks[0],
                          image("sda")}).ok());
  EXPECT_TRUE(runCommand({"qemu-img", "compare", "-f", "vmdk", "-F", "qcow2", disks[1],
                          image("sdb")}).ok());
  EXPECT_NE(std::string::npos,
            lastRecordFor(name_).find(" result=success source=vmware firmware=bios "
                                      "hw=sata+e1000 duration="))
      << lastRecordFor(name_);

  // The same folder again: both collisions are refused and nothing changes.
  FolderSnapshot outputBefore = snapshotFolder(output_.path());
  CommandResult second = migrate();
  EXPECT_EQ(1, second.exitCode);
  EXPECT_NE(std::string::npos,
            second.stderrText.find("ERROR: A VM named '" + name_ + "' already exists in Orvane."));
  CommandResult dry = runCommand({ORVANE_BINARY, "-p", folder_->path(), "-o", output_.path(),
                                  "-n", name_, "--dry-run"});
  EXPECT_EQ(1, dry.exitCode);
  EXPECT_NE(std::string::npos, dry.stdoutText.find("  - Target image already exists (it will "
                                                   "not be overwritten): " + image("sda")));
  EXPECT_NE(std::string::npos, dry.stdoutText.find("  - Target image already exists (it will "
                                                   "not be overwritten): " + image("sdb")));
  EXPECT_EQ("", describeDifferences(outputBefore, snapshotFolder(output_.path())));
  EXPECT_EQ(xml, runCommand({"virsh", "dumpxml", name_}).stdoutText);
  EXPECT_EQ("", describeDifferences(sourceBefore, snapshotFolder(folder_->path())));
}

}  // namespace
}  // namespace orvane::testing
