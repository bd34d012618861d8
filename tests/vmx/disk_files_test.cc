// The files behind each disk, on folders made here: what VMware writes passes, and
// every way a descriptor can reach outside its folder, or a disk file can be
// missing or special, is refused with a message that names the file and the key.
#include "vmx/disk_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeFile;

std::string flatDescriptor(const std::string& createType,
                           const std::string& extentLines) {
  return "# Disk DescriptorFile\nversion=1\nCID=52f6f1a5\nparentCID=ffffffff\n"
         "createType=\"" +
         createType + "\"\n\n# Extent description\n" + extentLines +
         "\n# The Disk Data Base\nddb.adapterType = \"lsilogic\"\n";
}

/// A sparse extent as VMware lays it out: the header, then the descriptor in
/// sectors 1-20, NUL-padded, then (here) one grain of data.
std::string sparseExtent(std::uint64_t capacity, const std::string& descriptor) {
  std::string out(512 + 20 * 512 + 4096, '\0');
  out.replace(0, 4, "KDMV");
  const auto put64 = [&out](std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) out[at + i] = static_cast<char>((v >> (8 * i)) & 0xff);
  };
  put64(12, capacity);
  put64(20, 128);
  put64(28, 1);
  put64(36, 20);
  out.replace(512, descriptor.size(), descriptor);
  return out;
}

struct Case {
  const char* name;
  /// Fills the folder; `elsewhere` is a second folder outside it.
  std::function<void(const std::string& dir, const std::string& elsewhere)> setUp;
  /// The one problem expected (its beginning, "{dir}" for the folder); "" for none.
  std::string problem;
};

TEST(DiskFiles, EachFileQemuImgWouldOpen) {
  const Case cases[] = {
      {"flat descriptor and its extent",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   flatDescriptor("monolithicFlat", "RW 2048 FLAT \"d-flat.vmdk\" 0"));
         writeFile(d + "/d-flat.vmdk", std::string(4096, '\0'));
       },
       ""},
      {"sparse disk whose embedded descriptor names itself",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   sparseExtent(2048, flatDescriptor("monolithicSparse",
                                                     "RW 2048 SPARSE \"d.vmdk\"")));
       },
       ""},
      {"renamed sparse disk whose embedded descriptor keeps the old name",
       [](const std::string& d, const std::string&) {
         writeFile(
             d + "/d.vmdk",
             sparseExtent(2048, flatDescriptor("monolithicSparse",
                                               "RW 2048 SPARSE \"old name.vmdk\"")));
       },
       ""},
      {"extent behind a symbolic link that stays in the folder",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   flatDescriptor("monolithicFlat", "RW 8 FLAT \"link.vmdk\" 0"));
         writeFile(d + "/d-flat.vmdk", std::string(4096, '\0'));
         fs::create_symlink("d-flat.vmdk", d + "/link.vmdk");
       },
       ""},
      {"the disk is missing", [](const std::string&, const std::string&) {},
       "Disk file not found: {dir}/d.vmdk (scsi0:1.fileName in the .vmx); copy it into "
       "the VM folder or correct the .vmx, then re-run."},
      {"an extent is missing",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   flatDescriptor("twoGbMaxExtentFlat", "RW 8 FLAT \"d-f001.vmdk\" 0"));
       },
       "Disk file not found: {dir}/d-f001.vmdk (an extent of {dir}/d.vmdk, "
       "scsi0:1.fileName in the .vmx); copy it beside its descriptor, then re-run."},
      {"the disk is a FIFO",
       [](const std::string& d, const std::string&) {
         mkfifo((d + "/d.vmdk").c_str(), 0600);
       },
       "Disk file is a FIFO (named pipe), not a regular file: {dir}/d.vmdk "
       "(scsi0:1.fileName in the .vmx).\nPut the real disk file in its place"},
      {"an extent is a FIFO",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk", flatDescriptor("vmfs", "RW 8 VMFS \"d-flat.vmdk\""));
         mkfifo((d + "/d-flat.vmdk").c_str(), 0600);
       },
       "Disk file is a FIFO (named pipe), not a regular file: {dir}/d-flat.vmdk (an "
       "extent of {dir}/d.vmdk, scsi0:1.fileName in the .vmx)."},
      {"the disk is a directory",
       [](const std::string& d, const std::string&) {
         fs::create_directory(d + "/d.vmdk");
       },
       "Disk file is a directory, not a regular file: {dir}/d.vmdk"},
      {"the disk is a link to a device",
       [](const std::string& d, const std::string&) {
         fs::create_symlink("/dev/null", d + "/d.vmdk");
       },
       "Disk file is a character device, not a regular file: {dir}/d.vmdk"},
      {"an extent on an absolute path",
       [](const std::string& d, const std::string& e) {
         writeFile(e + "/secret.raw", "secret");
         writeFile(
             d + "/d.vmdk",
             flatDescriptor("monolithicFlat", "RW 2048 FLAT \"" + e + "/secret.raw\" 0"));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent outside its "
       "folder: \"/"},
      {"an extent on a device",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk", flatDescriptor("vmfs", "RW 2048 VMFS \"/dev/sda\""));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent outside its "
       "folder: \"/dev/sda\" is an absolute path.\nA disk's extents must be files "
       "beside"},
      {"an extent that climbs out through ..",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   flatDescriptor("monolithicFlat", "RW 8 FLAT \"x/../../other.raw\" 0"));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent outside its "
       "folder: \"x/../../other.raw\" climbs out through \"..\"."},
      {"an extent behind a symbolic link that leaves the folder",
       [](const std::string& d, const std::string& e) {
         writeFile(e + "/secret.raw", "secret");
         fs::create_symlink(e + "/secret.raw", d + "/d-flat.vmdk");
         writeFile(d + "/d.vmdk",
                   flatDescriptor("monolithicFlat", "RW 8 FLAT \"d-flat.vmdk\" 0"));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent outside its "
       "folder: \"d-flat.vmdk\" leads out through a symbolic link."},
      {"a sparse disk whose embedded descriptor names a host file",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk",
                   sparseExtent(0, flatDescriptor("monolithicFlat",
                                                  "RW 2048 FLAT \"/etc/hostname\" 0")));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent outside its "
       "folder: \"/etc/hostname\" is an absolute path."},
      {"an extent that is itself a descriptor",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk", flatDescriptor("twoGbMaxExtentSparse",
                                                 "RW 2048 SPARSE \"d-s001.vmdk\""));
         writeFile(d + "/d-s001.vmdk",
                   sparseExtent(0, flatDescriptor("monolithicFlat",
                                                  "RW 8 FLAT \"d-s001.vmdk\" 0")));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) names an extent that is itself "
       "a descriptor: \"d-s001.vmdk\"."},
      {"a raw device mapping",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk", flatDescriptor("vmfsPassthroughRawDeviceMap",
                                                 "RW 2048 VMFSRDM \"d-rdmp.vmdk\""));
         writeFile(d + "/d-rdmp.vmdk", std::string(512, '\0'));
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) is a raw device mapping "
       "(createType \"vmfsPassthroughRawDeviceMap\"): its data is a device of the VMware "
       "host, not a file in the VM folder.\nIn VMware, migrate it"},
      // qemu-img reads up to a megabyte of text: an extent line past the first
      // 64 KiB would be followed unseen.
      {"a text descriptor that runs on past 64 KiB",
       [](const std::string& d, const std::string&) {
         writeFile(d + "/d.vmdk", flatDescriptor("monolithicFlat", "") +
                                      std::string(70 << 10, '#') +
                                      "\nRW 8 FLAT \"/etc/hostname\" 0\n");
       },
       "Disk {dir}/d.vmdk (scsi0:1.fileName in the .vmx) has a descriptor that does not "
       "end within its first 64 KiB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir("orvane-disks-files");
    TempDir elsewhere("orvane-disks-elsewhere");
    c.setUp(dir.path(), elsewhere.path());
    const std::vector<std::string> problems =
        diskFileProblems({{dir.file("d.vmdk"), "scsi0:1.fileName"}});
    if (c.problem.empty()) {
      EXPECT_TRUE(problems.empty()) << problems.front();
      continue;
    }
    std::string expected = c.problem;
    for (std::size_t at; (at = expected.find("{dir}")) != std::string::npos;) {
      expected.replace(at, 5, dir.path());
    }
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems.front().substr(0, expected.size()), expected);
  }
}

TEST(DiskFiles, OneLinePerMissingFileAcrossDisks) {
  TempDir dir("orvane-disks-files");
  writeFile(dir.file("a.vmdk"), flatDescriptor("twoGbMaxExtentFlat",
                                               "RW 8 FLAT \"a-f001.vmdk\" 0\n"
                                               "RW 8 FLAT \"a-f002.vmdk\" 0"));
  const std::vector<std::string> problems =
      diskFileProblems({{dir.file("a.vmdk"), "scsi0:0.fileName"},
                        {dir.file("b.vmdk"), "sata0:1.fileName"}});
  ASSERT_EQ(problems.size(), 3u);
  EXPECT_NE(problems[0].find("a-f001.vmdk"), std::string::npos);
  EXPECT_NE(problems[1].find("a-f002.vmdk"), std::string::npos);
  EXPECT_NE(problems[2].find("b.vmdk (sata0:1.fileName in the .vmx)"), std::string::npos);
  for (const std::string& p : problems) EXPECT_EQ(p.find('\n'), std::string::npos) << p;
}

}  // namespace
}  // namespace orvane
