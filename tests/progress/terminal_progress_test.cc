#include "progress/terminal_progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "progress/qemu_img_progress.h"
#include "progress/spinner.h"

namespace orvane {
namespace {

/// A pseudo-terminal in raw mode: displays write to slave(), tests read what arrived.
class Pty {
 public:
  Pty() {
    termios raw{};
    cfmakeraw(&raw);
    if (::openpty(&master_, &slave_, nullptr, &raw, nullptr) != 0) master_ = slave_ = -1;
  }
  ~Pty() {
    if (master_ >= 0) ::close(master_);
    if (slave_ >= 0) ::close(slave_);
  }
  bool ok() const { return master_ >= 0; }
  int slave() const { return slave_; }
  /// Everything written since the last call.
  std::string take() {
    std::string bytes;
    pollfd entry{master_, POLLIN, 0};
    // The tty layer hands bytes over asynchronously: wait briefly for stragglers.
    while (::poll(&entry, 1, 50) == 1) {
      char buffer[1024];
      const ssize_t count = ::read(master_, buffer, sizeof buffer);
      if (count <= 0) break;
      bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return bytes;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
};

TEST(TerminalProgress, DrawsAndClearsOnATerminal) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  TerminalProgress line(pty.slave());
  EXPECT_TRUE(line.enabled());
  line.draw("longer text");
  EXPECT_EQ("\rlonger text", pty.take());
  line.draw("short");
  EXPECT_EQ("\rshort      ", pty.take());  // blanks what is left of the longer line
  line.draw("mid text");
  EXPECT_EQ("\rmid text", pty.take());  // padding is measured from "short", not drawn
  line.onFinish();
  EXPECT_EQ("\r        \r", pty.take());
  line.onFinish();
  EXPECT_EQ("", pty.take());
}

TEST(TerminalProgress, FinishWithoutDrawingWritesNothing) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  TerminalProgress line(pty.slave());
  line.onFinish();
  EXPECT_EQ("", pty.take());
}

TEST(TerminalProgress, SilentWhenNotATerminal) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  {
    TerminalProgress line(ends[1]);
    EXPECT_FALSE(line.enabled());
    line.draw("text");
    line.onFinish();
    Spinner spinner("  spin", ends[1]);
    spinner.onTick();
    spinner.onFinish();
    QemuImgProgress progress("  disk", ends[1]);
    progress.onOutput("    (42.17/100%)\r");
    progress.onTick();
    progress.onFinish();
    // Parsing goes on without a terminal.
    EXPECT_DOUBLE_EQ(42.17, progress.lastPercent());
  }
  char byte;
  EXPECT_EQ(-1, ::read(ends[0], &byte, 1));
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(Spinner, TurnsOncePerTick) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  Spinner spinner("  defining the VM", pty.slave());
  std::string expected;
  for (const char c : std::string("|/-\\|")) {
    spinner.onTick();
    expected += std::string("\r  defining the VM ") + c + " ";
  }
  EXPECT_EQ(expected, pty.take());
  spinner.onFinish();
  EXPECT_EQ("\r" + std::string(20, ' ') + "\r", pty.take());
}

TEST(QemuImgProgress, ReadsPercentAcrossChunks) {
  QemuImgProgress progress("  disk", -1);
  EXPECT_EQ(-1, progress.lastPercent());
  progress.onOutput("    (50.00/100%)\r");
  EXPECT_DOUBLE_EQ(50, progress.lastPercent());
  progress.onOutput("    (7");
  EXPECT_DOUBLE_EQ(50, progress.lastPercent());
  progress.onOutput(".5/100%)\r");
  EXPECT_DOUBLE_EQ(7.5, progress.lastPercent());
  progress.onOutput("    (abc/100%)\r    (150/100%)\r");
  EXPECT_DOUBLE_EQ(7.5, progress.lastPercent());
}

TEST(QemuImgProgress, KeepsOnlyTheLast256BytesBetweenChunks) {
  QemuImgProgress progress("  disk", -1);
  progress.onOutput("(12");
  progress.onOutput(std::string(300, 'x'));
  // The "(" fell out of the kept tail, so this completes nothing.
  progress.onOutput("/100%)");
  EXPECT_EQ(-1, progress.lastPercent());

  progress.onOutput(std::string(250, 'y') + "(3");
  progress.onOutput("3/100%)");
  EXPECT_DOUBLE_EQ(33, progress.lastPercent());
}

TEST(QemuImgProgress, DrawsTheBarOnOutputAndTurnsOnTicks) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  QemuImgProgress progress("  converting", pty.slave());
  progress.onTick();
  EXPECT_EQ("\r  converting / ", pty.take());
  progress.onOutput("    (42.17/100%)\r");
  const std::string bar = "[" + std::string(10, '=') + std::string(14, ' ') + "]";
  EXPECT_EQ("\r  converting " + bar + "  42% / ", pty.take());
  progress.onTick();
  EXPECT_EQ("\r  converting " + bar + "  42% - ", pty.take());
}

}  // namespace
}  // namespace orvane
