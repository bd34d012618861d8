#include "process/command_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "progress/progress_observer.h"
#include "support/console_lines.h"
#include "support/temp_dir.h"

namespace orvane {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Seen : ProgressObserver {
  void onOutput(std::string_view chunk) override { text += chunk; }
  void onTick() override { ticks.push_back(Clock::now()); }
  void onFinish() override { ++finishes; }
  std::string text;
  std::vector<Clock::time_point> ticks;
  int finishes = 0;
};

// Run twice, the second time as a caller that ignores and blocks SIGPIPE: the child
// must get the default action all the same, and a closed input must not kill us.
TEST(RunCommand, EveryChildOfTheTableEndsAsItSays) {
  for (const auto action : {SIG_DFL, SIG_IGN}) {
    struct sigaction pipeAction {}, saved {};
    pipeAction.sa_handler = action;
    sigaction(SIGPIPE, &pipeAction, &saved);
    sigset_t pipeOnly, savedMask;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    sigprocmask(action == SIG_IGN ? SIG_BLOCK : SIG_UNBLOCK, &pipeOnly, &savedMask);
    for (const auto& f : testing::readTable(ORVANE_SOURCE_DIR "/tests/process/children.tsv")) {
      Seen seen;
      const CommandResult r = runCommand({f.begin() + 4, f.end()}, {f.at(3), &seen});
      EXPECT_EQ(std::stoi(f[0]), r.exitCode) << f.back();
      EXPECT_EQ(r.exitCode == 0, r.ok());
      EXPECT_TRUE(f[1] == r.stdoutText) << f.back() << ": " << r.stdoutText.substr(0, 99);
      EXPECT_EQ(f[2], r.stderrText) << f.back();
      EXPECT_EQ(r.stdoutText.size() + r.stderrText.size(), seen.text.size()) << f.back();
      EXPECT_EQ(f.size() > 4 ? 1 : 0, seen.finishes) << f.back();
    }
    sigprocmask(SIG_SETMASK, &savedMask, nullptr);
    sigaction(SIGPIPE, &saved, nullptr);
  }
}

TEST(RunCommand, WorksWhenTheCallerHasItsStandardDescriptorsClosed) {
  // Scripts may start us with <&- >&- 2>&-: the pipes then take descriptors 0 to 2.
  int saved[3];
  for (int fd = 0; fd < 3; ++fd) saved[fd] = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
  for (int fd = 0; fd < 3; ++fd) ::close(fd);
  const CommandResult r = runCommand({"sh", "-c", "cat; printf err >&2"}, {"in"});
  for (int fd = 0; fd < 3; ++fd) ::dup2(saved[fd], fd), ::close(saved[fd]);
  EXPECT_EQ(0, r.exitCode);
  EXPECT_EQ("in", r.stdoutText);
  EXPECT_EQ("err", r.stderrText);
}

TEST(RunCommand, TicksNoCloserThanTheIntervalWhetherTheChildTalksOrNot) {
  for (const char* script : {"sleep 0.5", "for i in 1 2 3 4 5 6 7 8 9; do echo $i; sleep 0.05; done"}) {
    Seen seen;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, runCommand({"sh", "-c", script}, {"", &seen, 100}).exitCode);
    EXPECT_GE(seen.ticks.size(), 3u) << script;
    EXPECT_LE(seen.ticks.size(), static_cast<std::size_t>((Clock::now() - start) / milliseconds(100)));
    for (std::size_t i = 1; i < seen.ticks.size(); ++i) {
      EXPECT_GE(seen.ticks[i] - seen.ticks[i - 1], milliseconds(95)) << script;
    }
  }
}

// The flag is set from another thread, as a signal handler would set it while the
// runner sits in poll with no observer to wake it.
TEST(RunCommand, StopFlagEndsTheChildWithinItsGracePeriod) {
  const struct {
    std::vector<std::string> argv;
    int exitCode;
    milliseconds atMost;
  } cases[] = {
      {{"sleep", "30"}, 143, milliseconds(1000)},
      {{"sh", "-c", "exec >&- 2>&-; exec sleep 30"}, 143, milliseconds(1000)},
      // Killed after the grace period; the grandchild's copy of the pipes must not
      // keep the runner waiting.
      {{"sh", "-c", "trap '' TERM; sleep 3 & sleep 30"}, 137, milliseconds(kStopGraceMs + 1000)},
  };
  for (const auto& c : cases) {
    volatile std::sig_atomic_t flag = 0;
    Clock::time_point setAt;
    std::thread setter([&] {
      std::this_thread::sleep_for(milliseconds(300));
      setAt = Clock::now();
      flag = SIGINT;
    });
    const CommandResult r = runCommand(c.argv, {"", nullptr, 100, &flag});
    const Clock::time_point returned = Clock::now();
    setter.join();
    EXPECT_EQ(c.exitCode, r.exitCode) << c.argv.back();
    EXPECT_LT(returned - setAt, c.atMost) << c.argv.back();
  }
}

}  // namespace
}  // namespace orvane
