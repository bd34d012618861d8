#include "process/command_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "support/tables.h"

namespace orvane::testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Three passes: as an ordinary caller; as one that ignores and blocks SIGPIPE (the
// child must get the default action all the same, and a closed input must not kill
// us); as one started with 0, 1 and 2 closed, so that the pipes take those numbers.
TEST(RunCommand, EveryChildOfTheTableEndsAsItSays) {
  const auto table = readRows(ORVANE_SOURCE_DIR "/tests/process/children.tsv");
  for (const int pass : {0, 1, 2}) {
    struct sigaction pipeAction {}, saved {};
    pipeAction.sa_handler = pass == 1 ? SIG_IGN : SIG_DFL;
    sigaction(SIGPIPE, &pipeAction, &saved);
    sigset_t pipeOnly, savedMask;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    sigprocmask(pass == 1 ? SIG_BLOCK : SIG_UNBLOCK, &pipeOnly, &savedMask);
    for (const auto& f : table) {
      RecordingProgress seen;
      int kept[3];
      for (int fd = 0; fd < 3 && pass == 2; ++fd) kept[fd] = ::fcntl(fd, F_DUPFD_CLOEXEC, 10), ::close(fd);
      const CommandResult r = runCommand({f.begin() + 4, f.end()}, {f.at(3), &seen});
      for (int fd = 0; fd < 3 && pass == 2; ++fd) ::dup2(kept[fd], fd), ::close(kept[fd]);
      EXPECT_EQ(std::stoi(f[0]), r.exitCode) << f.back();
      EXPECT_EQ(r.exitCode == 0, r.ok());
      EXPECT_TRUE(f[1] == r.stdoutText) << f.back() << ": " << r.stdoutText.substr(0, 99);
      EXPECT_EQ(f[2], r.stderrText) << f.back();
      EXPECT_EQ(r.stdoutText.size() + r.stderrText.size(), seen.output.size()) << f.back();
      EXPECT_EQ(f.size() > 4 ? 1 : 0, seen.finishes) << f.back();
    }
    sigprocmask(SIG_SETMASK, &savedMask, nullptr);
    sigaction(SIGPIPE, &saved, nullptr);
  }
}

TEST(RunCommand, TicksNoCloserThanTheIntervalWhetherTheChildTalksOrNot) {
  for (const char* script : {"sleep 0.5", "for i in 1 2 3 4 5 6 7 8 9; do echo $i; sleep 0.05; done"}) {
    RecordingProgress seen;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, runCommand({"sh", "-c", script}, {"", &seen, 100}).exitCode);
    EXPECT_GE(seen.ticks.size(), 3u) << script;
    EXPECT_LE(seen.ticks.size(), static_cast<std::size_t>((Clock::now() - start) / milliseconds(100)));
    for (std::size_t i = 1; i < seen.ticks.size(); ++i) {
      EXPECT_GE(seen.ticks[i] - seen.ticks[i - 1], milliseconds(95)) << script;
    }
  }
}

// stopped.tsv: "<exit>\t<ms from the flag to the return, at most>\t<argv>...". The flag
// is set from another thread, as a signal handler sets it while the runner sits in poll.
TEST(RunCommand, StopFlagEndsTheChildWithinItsGracePeriod) {
  for (const auto& f : readRows(ORVANE_SOURCE_DIR "/tests/process/stopped.tsv")) {
    volatile std::sig_atomic_t flag = 0;
    Clock::time_point setAt;
    std::thread setter([&] {
      std::this_thread::sleep_for(milliseconds(300));
      setAt = Clock::now();
      flag = SIGINT;
    });
    const CommandResult r = runCommand({f.begin() + 2, f.end()}, {"", nullptr, 100, &flag});
    const Clock::time_point returned = Clock::now();
    setter.join();
    EXPECT_EQ(std::stoi(f.at(0)), r.exitCode) << f.back();
    EXPECT_LT(returned - setAt, milliseconds(std::stoi(f[1]))) << f.back();
  }
}

}  // namespace
}  // namespace orvane::testing
