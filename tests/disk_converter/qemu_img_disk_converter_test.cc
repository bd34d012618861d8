#include "disk_converter/qemu_img_disk_converter.h"

#include "support/tables.h"

namespace orvane::testing {
namespace {

// Both formats stated, paths with blanks as single arguments, the result as qemu-img
// left it and its output through the observer. That a signal stops a conversion at
// once is the program test's: it signals a run while its qemu-img sleeps.
TEST(QemuImgDiskConverter, RunsQemuImgAndHandsBackItsResult) {
  FakeTools tools;
  tools.addRecording("qemu-img",
                     "printf '    (0.00/100%%)\\r    (100.00/100%%)\\r\\n'\n"
                     "echo \"qemu-img: Could not open '$7': No such file\" >&2\n"
                     "exit 1");
  RecordingProgress progress;
  const CommandResult r = QemuImgDiskConverter().convert("/vm store/My VM/My VM.vmdk",
                                                         "/i/My VM.qcow2", &progress);
  EXPECT_EQ(tools.calls("qemu-img"),
            (std::vector<std::vector<std::string>>{{"convert", "-p", "-f", "vmdk", "-O",
                                                    "qcow2", "/vm store/My VM/My VM.vmdk",
                                                    "/i/My VM.qcow2"}}));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.stdoutText, "    (0.00/100%)\r    (100.00/100%)\r\n");
  EXPECT_EQ(r.stderrText,
            "qemu-img: Could not open '/vm store/My VM/My VM.vmdk': No such file\n");
  EXPECT_NE(progress.output.find(r.stdoutText), std::string::npos);
}

}  // namespace
}  // namespace orvane::testing
