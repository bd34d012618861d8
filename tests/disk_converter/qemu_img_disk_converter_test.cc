#include "disk_converter/qemu_img_disk_converter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "progress/progress_observer.h"
#include "support/fake_tools.h"

namespace orvane {
namespace {

using testing::FakeTools;
using Argv = std::vector<std::string>;

class OutputRecorder : public ProgressObserver {
 public:
  void onOutput(std::string_view chunk) override { seen.append(chunk); }
  std::string seen;
};

TEST(QemuImgDiskConverter, PathsWithSpacesStaySingleArguments) {
  FakeTools tools;
  tools.addRecording("qemu-img", "printf '    (0.00/100%%)\\r    (100.00/100%%)\\r\\n'");
  OutputRecorder progress;

  CommandResult r = QemuImgDiskConverter().convert(
      "/vm store/My VM/My VM.vmdk", "/var/lib/libvirt/images/My VM.qcow2", &progress);

  EXPECT_TRUE(r.ok());
  const Argv expected = {"convert",
                         "-p",
                         "-f",
                         "vmdk",
                         "-O",
                         "qcow2",
                         "/vm store/My VM/My VM.vmdk",
                         "/var/lib/libvirt/images/My VM.qcow2"};
  EXPECT_EQ(tools.calls("qemu-img"), std::vector<Argv>{expected});
  EXPECT_EQ(tools.stdins("qemu-img"), std::vector<std::string>{""});
  EXPECT_EQ(progress.seen, "    (0.00/100%)\r    (100.00/100%)\r\n");
}

TEST(QemuImgDiskConverter, ResultComesBackUnchangedWithoutObserver) {
  FakeTools tools;
  tools.add("qemu-img",
            "echo '    (12.00/100%)'\n"
            "echo \"qemu-img: Could not open '$7': No such file\" >&2\nexit 1");

  CommandResult r =
      QemuImgDiskConverter().convert("/src/a.vmdk", "/dst/a.qcow2", nullptr);

  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.stdoutText, "    (12.00/100%)\n");
  EXPECT_EQ(r.stderrText, "qemu-img: Could not open '/src/a.vmdk': No such file\n");
}

}  // namespace
}  // namespace orvane
