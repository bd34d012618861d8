#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "progress/qemu_img_progress.h"
#include "progress/qemu_img_progress_text.h"
#include "progress/spinner.h"
#include "support/tables.h"

namespace orvane::testing {
namespace {

/// Everything written to the terminal since the last call; the tty layer hands bytes
/// over asynchronously, so stragglers get a moment.
std::string take(int master, int waitMs) {
  std::string bytes;
  char buffer[1024];
  for (pollfd entry{master, POLLIN, 0}; ::poll(&entry, 1, waitMs) == 1;) {
    const ssize_t count = ::read(master, buffer, sizeof buffer);
    if (count <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  return bytes;
}

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
