#include "disk_converter/qemu_img_disk_converter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

#include "support/fake_tools.h"
#include "vmx/test_tables.h"

namespace orvane::testing {
namespace {

// Both formats stated, paths with blanks as single arguments; the result comes back
// as qemu-img left it, its output also through the observer.
TEST(QemuImgDiskConverter, RunsQemuImgAndHandsBackItsResult) {
  FakeTools tools;
  tools.addRecording("qemu-img",
                     "printf '    (0.00/100%%)\\r    (100.00/100%%)\\r\\n'\n"
                     "echo \"qemu-img: Could not open '$7': No such file\" >&2\nexit 1");
  RecordingProgress progress;
  const CommandResult r = QemuImgDiskConverter().convert(
      "/vm store/My VM/My VM.vmdk", "/images/My VM.qcow2", &progress);
  EXPECT_EQ(tools.calls("qemu-img"),
            (std::vector<std::vector<std::string>>{{"convert", "-p", "-f", "vmdk", "-O",
                                                    "qcow2", "/vm store/My VM/My VM.vmdk",
                                                    "/images/My VM.qcow2"}}));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.stdoutText, "    (0.00/100%)\r    (100.00/100%)\r\n");
  EXPECT_EQ(r.stderrText,
            "qemu-img: Could not open '/vm store/My VM/My VM.vmdk': No such file\n");
  EXPECT_NE(progress.output.find(r.stdoutText), std::string::npos);
}

// Hours of copying must not stand between a termination signal and the exit.
TEST(QemuImgDiskConverter, APendingStopEndsTheConversion) {
  FakeTools tools;
  tools.add("qemu-img", "exec sleep 60");
  volatile std::sig_atomic_t stop = SIGTERM;
  const auto started = std::chrono::steady_clock::now();
  const CommandResult r =
      QemuImgDiskConverter(&stop).convert("/a.vmdk", "/a.qcow2", nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(r.exitCode, 128 + SIGTERM);
}

}  // namespace
}  // namespace orvane::testing
