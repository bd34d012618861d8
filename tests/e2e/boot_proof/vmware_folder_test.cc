// The VMware folders the real-host tests use must read as VMware's own would:
// checked against the program's own VMX reader and against qemu-img.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "process/command_runner.h"
#include "support/temp_dir.h"
#include "support/vmware_folder.h"
#include "vmx/vmx_reader.h"

namespace orvane::testing {
namespace {

namespace fs = std::filesystem;

class VmwareFolderHost : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runCommand({"qemu-img", "--version"}).ok()) {
      GTEST_SKIP() << "qemu-img is missing: run scripts/host-setup";
    }
  }
};

TEST_F(VmwareFolderHost, ReadsBackAsWrittenWithDisksInEachSubformat) {
  VmwareFolderSpec spec;
  spec.displayName = "web01";
  spec.guestOs = "Windows9Srv-64";
  spec.firmware = "efi";
  spec.numvcpus = 4;
  spec.memsize = 4096;
  spec.nicMacs = {"00:0c:29:aa:bb:01", "00:0c:29:aa:bb:02"};
  spec.disks = {{"scsi0:0", "", 1 << 20, "monolithicSparse", ""},
                {"sata0:1", "", 1 << 20, "twoGbMaxExtentSparse", ""},
                {"ide0:0", "", 1 << 20, "monolithicFlat", ""}};
  spec.extraLines = {"serial0.present = \"TRUE\""};
  VmwareFolder folder(spec);
  const auto& disks = folder.diskPaths();
  ASSERT_EQ(disks.size(), 3u);

  const VmxData vmx = parseVmx(folder.vmxPath(), folder.path());
  EXPECT_EQ(vmx.displayName, "web01");
  EXPECT_EQ(vmx.guestOs, "windows9srv-64");
  EXPECT_EQ(vmx.firmware, "efi");
  EXPECT_EQ(vmx.numVcpus, "4");
  EXPECT_EQ(vmx.memSize, "4096");
  EXPECT_EQ(vmx.macAddresses, spec.nicMacs);
  // Bus order (ide < sata < scsi); the CD-ROM is not a disk.
  EXPECT_EQ(vmx.vmdkFiles, (std::vector<std::string>{disks[2], disks[1], disks[0]}));
  EXPECT_TRUE(vmx.snapDisks.empty());
  EXPECT_TRUE(vmx.hasSerial);

  const char* subformats[] = {"monolithicSparse", "twoGbMaxExtentSparse", "monolithicFlat"};
  for (std::size_t i = 0; i < disks.size(); ++i) {
    CommandResult info = runCommand({"qemu-img", "info", "--output=json", disks[i]});
    ASSERT_TRUE(info.ok()) << info.stderrText;
    EXPECT_NE(info.stdoutText.find("\"create-type\": \"" + std::string(subformats[i]) + "\""),
              std::string::npos)
        << info.stdoutText;
  }
  // Split subformats leave their extents beside the descriptor, as VMware does.
  const auto& files = folder.files();
  EXPECT_NE(std::find(files.begin(), files.end(), folder.path() + "/web01_1-s001.vmdk"),
            files.end());
  EXPECT_NE(std::find(files.begin(), files.end(), folder.path() + "/web01_2-flat.vmdk"),
            files.end());
}

TEST_F(VmwareFolderHost, RawImageIsConvertedWithItsContent) {
  TempDir work("orvane-vmware-raw");
  const std::string raw = work.file("disk.raw");
  std::string content(1 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 % 251);
  writeFile(raw, content);
  VmwareFolderSpec spec;
  spec.disks = {{"sata0:0", "guest.vmdk", 0, "streamOptimized", raw}};
  VmwareFolder folder(spec);
  CommandResult same =
      runCommand({"qemu-img", "compare", "-f", "raw", "-F", "vmdk", raw, folder.diskPaths()[0]});
  EXPECT_EQ(same.exitCode, 0) << same.stdoutText << same.stderrText;
}

TEST_F(VmwareFolderHost, SnapshotsTellEveryKindOfChangeAndFolderIsRemovedAfter) {
  std::string path;
  {
    VmwareFolder folder(VmwareFolderSpec{});
    path = folder.path();
    const FolderSnapshot before = snapshotFolder(path);
    EXPECT_EQ(before.size(), folder.files().size());
    EXPECT_EQ(describeDifferences(before, snapshotFolder(path)), "");

    std::ofstream(folder.vmxPath(), std::ios::app) << "annotation = \"x\"\n";
    fs::remove(folder.diskPaths()[0]);
    writeFile(path + "/vmware.log", "");
    EXPECT_EQ(describeDifferences(before, snapshotFolder(path)),
              "removed: orvane-test-vm.vmdk\n"
              "changed: orvane-test-vm.vmx (size, sha256, mtime)\n"
              "added: vmware.log\n");
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(DescribeDifferences, NamesWhatChangedWhenOnlyTheTimeMoved) {
  FolderSnapshot before = {{"a.vmdk", {10, 100, "aa"}}};
  FolderSnapshot after = {{"a.vmdk", {10, 200, "aa"}}};
  EXPECT_EQ(describeDifferences(before, after), "changed: a.vmdk (mtime)\n");
}

}  // namespace
}  // namespace orvane::testing
