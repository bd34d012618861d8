#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "progress/qemu_img_progress.h"
#include "progress/qemu_img_progress_text.h"
#include "progress/spinner.h"
#include "support/tables.h"

namespace orvane::testing {
namespace {

// terminal.tsv: "<display>\t<call>\t<argument>\t<bytes on the terminal>" in order.
TEST(TerminalProgress, DrawsWhatTheTableSaysOnATerminalAndNothingElsewhere) {
  int master = -1, slave = -1, ends[2];
  termios raw{};
  cfmakeraw(&raw);
  ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, &raw, nullptr));
  ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
  for (const int fd : {slave, ends[1]}) {
    QemuImgProgress bar("  disk", fd);
    Spinner spinner("  defining the VM", fd);
    EXPECT_EQ(fd == slave, bar.enabled());
    for (auto f : readRows(ORVANE_SOURCE_DIR "/tests/progress/terminal.tsv")) {
      f.resize(4);
      TerminalProgress& display = f[0] == "bar" ? static_cast<TerminalProgress&>(bar) : spinner;
      if (f[1] == "draw") display.draw(f[2]);
      if (f[1] == "output") bar.onOutput(f[2]);
      if (f[1] == "tick") display.onTick();
      if (f[1] == "finish") display.onFinish();
      EXPECT_EQ(fd == slave ? f[3] : "", fd == slave ? take(master, 50) : take(ends[0], 0)) << f[1] << " " << f[2];
    }
  }
  for (const int fd : {master, slave, ends[0], ends[1]}) ::close(fd);
}

// percent.tsv: "<qemu-img output>\t<percent read, or nothing>"; the bar line of each
// percent read is checked in terminal.tsv.
TEST(QemuImgProgressText, ReadsTheNewestPercentOfTheTable) {
  for (auto f : readRows(ORVANE_SOURCE_DIR "/tests/progress/percent.tsv")) {
    f.resize(2);
    const std::optional<double> got = lastQemuImgPercent(f[0]);
    EXPECT_EQ(f[1], got ? std::to_string(*got) : "") << f[0];
  }
}

}  // namespace
}  // namespace orvane::testing
