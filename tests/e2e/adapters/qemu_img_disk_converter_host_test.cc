// QemuImgDiskConverter against the real qemu-img, on every VMDK layout VMware
// writes. The disks are 3 GiB and sparse, so the two-gigabyte-extent layouts get a
// second extent and one write straddles the boundary between them. Each layout
// also passes the disk-file check, and a copy of its descriptor that reaches out
// of the folder, which qemu-img itself would follow, is refused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "disk_converter/qemu_img_disk_converter.h"
#include "process/command_runner.h"
#include "progress/qemu_img_progress.h"
#include "support/temp_dir.h"
#include "vmx/disk_files.h"

namespace orvane {
namespace {

using testing::TempDir;

/// Recognisable data at the start, in the middle, across the 2 GiB extent
/// boundary, and in the last block.
const std::vector<std::string> kPatterns = {
    "-P 0xa1 0 64k",
    "-P 0xb2 1M 4k",
    "-P 0xc3 2047M 2M",
    "-P 0xd4 3068M 4k",
};

CommandResult qemuIo(const std::string& format, const std::string& op,
                     const std::string& image) {
  std::vector<std::string> argv = {"qemu-io", "-f", format};
  for (const std::string& p : kPatterns) {
    argv.push_back("-c");
    argv.push_back(op + " " + p);
  }
  argv.push_back(image);
  return runCommand(argv);
}

class QemuImgConverterOnHost : public ::testing::TestWithParam<const char*> {};

TEST_P(QemuImgConverterOnHost, QcowHoldsTheSameBytes) {
  if (!runCommand({"qemu-img", "--version"}).ok() ||
      !runCommand({"qemu-io", "--version"}).ok()) {
    GTEST_SKIP() << "qemu-img or qemu-io is missing: run scripts/host-setup";
  }
  const std::string subformat = GetParam();
  TempDir dir("orvane-e2e-disks-qemu-img");
  const std::string source = dir.file("source disk.vmdk");
  const std::string target = dir.file("target disk.qcow2");

  if (subformat == "streamOptimized") {
    // A stream-optimised VMDK is written once, front to back: it cannot take
    // writes in place, so the data goes into a raw file first.
    const std::string raw = dir.file("data.raw");
    ASSERT_TRUE(runCommand({"qemu-img", "create", "-q", "-f", "raw", raw, "3G"}).ok());
    CommandResult wrote = qemuIo("raw", "write", raw);
    ASSERT_TRUE(wrote.ok()) << wrote.stderrText;
    CommandResult made = runCommand({"qemu-img", "convert", "-f", "raw", "-O", "vmdk",
                                     "-o", "subformat=streamOptimized", raw, source});
    ASSERT_TRUE(made.ok()) << made.stderrText;
  } else {
    CommandResult made = runCommand({"qemu-img", "create", "-q", "-f", "vmdk", "-o",
                                     "subformat=" + subformat, source, "3G"});
    ASSERT_TRUE(made.ok()) << made.stderrText;
    CommandResult wrote = qemuIo("vmdk", "write", source);
    ASSERT_TRUE(wrote.ok()) << wrote.stderrText;
  }

  const std::vector<std::string> problems =
      diskFileProblems({{source, "scsi0:0.fileName"}});
  EXPECT_TRUE(problems.empty()) << problems.front();
  const std::string descriptor = testing::readFile(source);
  if (descriptor.rfind("KDMV", 0) != 0) {
    // The same extents named by absolute paths: qemu-img opens them as they are.
    std::string crafted = descriptor;
    const std::string quotedName = "\"source disk-";
    for (std::size_t at = 0; (at = crafted.find(quotedName, at)) != std::string::npos;
         at += quotedName.size()) {
      crafted.insert(at + 1, dir.path() + "/");
      at += dir.path().size() + 1;
    }
    ASSERT_NE(crafted, descriptor);
    const std::string evil = dir.file("evil.vmdk");
    testing::writeFile(evil, crafted);
    CommandResult opened = runCommand({"qemu-img", "info", evil});
    EXPECT_TRUE(opened.ok()) << opened.stderrText;
    const std::vector<std::string> refused =
        diskFileProblems({{evil, "scsi0:0.fileName"}});
    ASSERT_FALSE(refused.empty());
    EXPECT_NE(refused.front().find("names an extent outside its folder: \"" + dir.path()),
              std::string::npos)
        << refused.front();
  }

  // /dev/null is no terminal: the display stays silent but still reads percentages.
  int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(devNull, 0);
  QemuImgProgress progress("  converting", devNull);
  CommandResult r = QemuImgDiskConverter().convert(source, target, &progress);
  close(devNull);

  ASSERT_TRUE(r.ok()) << r.stderrText;
  EXPECT_EQ(progress.lastPercent(), 100.0);
  CommandResult same =
      runCommand({"qemu-img", "compare", "-f", "vmdk", "-F", "qcow2", source, target});
  EXPECT_EQ(same.exitCode, 0) << same.stdoutText << same.stderrText;
  // compare alone would pass two empty disks: the patterns must be in the copy.
  CommandResult read = qemuIo("qcow2", "read", target);
  EXPECT_TRUE(read.ok()) << read.stdoutText << read.stderrText;
  CommandResult info = runCommand({"qemu-img", "info", "--output=json", target});
  EXPECT_NE(info.stdoutText.find("\"format\": \"qcow2\""), std::string::npos)
      << info.stdoutText;
}

INSTANTIATE_TEST_SUITE_P(VmwareLayouts, QemuImgConverterOnHost,
                         ::testing::Values("monolithicSparse", "monolithicFlat",
                                           "twoGbMaxExtentSparse", "twoGbMaxExtentFlat",
                                           "streamOptimized"),
                         [](const ::testing::TestParamInfo<const char*>& param) {
                           return std::string(param.param);
                         });

}  // namespace
}  // namespace orvane
