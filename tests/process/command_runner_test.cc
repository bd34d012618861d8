#include "process/command_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "progress/progress_observer.h"

namespace orvane {
namespace {

using Clock = std::chrono::steady_clock;

/// Records every notification in order, with the time of each tick.
class RecordingObserver : public ProgressObserver {
 public:
  void onOutput(std::string_view chunk) override {
    events_.push_back("out");
    output_.append(chunk);
  }
  void onTick() override {
    events_.push_back("tick");
    ticks_.push_back(Clock::now());
  }
  void onFinish() override { events_.push_back("finish"); }

  std::vector<std::string> events_;
  std::string output_;
  std::vector<Clock::time_point> ticks_;

  long finishCount() const {
    return std::count(events_.begin(), events_.end(), "finish");
  }
};

struct ExitCase {
  std::vector<std::string> argv;
  int expected;
};

TEST(RunCommand, MapsExitStatus) {
  const ExitCase cases[] = {
      // clang-format off
      {{"sh", "-c", "exit 0"}, 0},
      {{"sh", "-c", "exit 3"}, 3},
      {{"sh", "-c", "exit 255"}, 255},
      {{"sh", "-c", "kill -9 $$"}, 137},
      {{"sh", "-c", "kill -15 $$"}, 143},
      {{"orvane-no-such-program-x"}, 127},  // not on PATH
      {{"/nonexistent/dir/prog"}, 127},
      {{}, -1},  // nothing to start
      // clang-format on
  };
  for (const ExitCase& c : cases) {
    const CommandResult result = runCommand(c.argv);
    EXPECT_EQ(c.expected, result.exitCode)
        << (c.argv.empty() ? "<empty>" : c.argv.back());
    EXPECT_EQ(c.expected == 0, result.ok());
  }
}

TEST(RunCommand, ObserverHearsOfEveryStartedChildOnceAndOfNothingElse) {
  RecordingObserver missing;
  CommandOptions options;
  options.progress = &missing;
  const CommandResult result = runCommand({"orvane-no-such-program-x", "arg"}, options);
  EXPECT_EQ(127, result.exitCode);
  EXPECT_EQ("", result.stdoutText + result.stderrText);
  EXPECT_EQ(std::vector<std::string>{"finish"}, missing.events_);

  RecordingObserver none;
  options.progress = &none;
  EXPECT_EQ(-1, runCommand({}, options).exitCode);
  EXPECT_TRUE(none.events_.empty());
}

TEST(RunCommand, PassesArgumentsWithoutAShell) {
  const CommandResult result =
      runCommand({"printf", "%s|", "a  b", "$HOME", "*", "-x", ""});
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("a  b|$HOME|*|-x||", result.stdoutText);
}

TEST(RunCommand, KeepsStreamsApartButShowsBothToTheObserver) {
  RecordingObserver observer;
  CommandOptions options;
  options.progress = &observer;
  const CommandResult result =
      runCommand({"sh", "-c", "printf out; sleep 0.05; printf err >&2; exit 4"}, options);
  EXPECT_EQ(4, result.exitCode);
  EXPECT_EQ("out", result.stdoutText);
  EXPECT_EQ("err", result.stderrText);
  EXPECT_EQ("outerr", observer.output_);

  // Standard error alone is still captured and shown.
  RecordingObserver errOnly;
  options.progress = &errOnly;
  const CommandResult oops = runCommand({"sh", "-c", "echo oops >&2"}, options);
  EXPECT_EQ("", oops.stdoutText);
  EXPECT_EQ("oops\n", oops.stderrText);
  EXPECT_EQ("oops\n", errOnly.output_);
  EXPECT_EQ(1, observer.finishCount());
  EXPECT_EQ("finish", observer.events_.back());
}

TEST(RunCommand, EmptyInputClosesTheChildsStdinAtOnce) {
  // cat would wait forever on an open stdin.
  const CommandResult result = runCommand({"cat"});
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("", result.stdoutText);
}

TEST(RunCommand, InputLargerThanThePipeIsEchoedBackWhole) {
  // cat writes back while it still has input to read: without interleaved writing
  // and reading both pipes fill and the pair deadlocks.
  CommandOptions options;
  options.stdinData.resize(1 << 20);
  for (std::size_t i = 0; i < options.stdinData.size(); ++i) {
    options.stdinData[i] = static_cast<char>('a' + i % 26);
  }
  const CommandResult result = runCommand({"cat"}, options);
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(options.stdinData.size(), result.stdoutText.size());
  EXPECT_TRUE(result.stdoutText == options.stdinData);
}

TEST(RunCommand, ChildThatNeverReadsItsInputDoesNotHangOrKillUs) {
  CommandOptions options;
  options.stdinData.assign(1 << 20, 'x');
  // The child closes its stdin early; our next write fails with EPIPE (and would
  // raise SIGPIPE, fatal to this test process, if it were not suppressed).
  const CommandResult result =
      runCommand({"sh", "-c", "exec 0<&-; sleep 0.1; echo done"}, options);
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("done\n", result.stdoutText);

  const CommandResult exited = runCommand({"true"}, options);
  EXPECT_EQ(0, exited.exitCode);
}

TEST(RunCommand, ChildGetsDefaultSigpipeEvenWhenCallerIgnoresOrBlocksIt) {
  struct sigaction ignore {};
  struct sigaction saved {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, &saved);
  sigset_t pipeOnly, savedMask;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigprocmask(SIG_BLOCK, &pipeOnly, &savedMask);

  const CommandResult result = runCommand({"sh", "-c", "kill -PIPE $$; exit 0"});

  sigprocmask(SIG_SETMASK, &savedMask, nullptr);
  sigaction(SIGPIPE, &saved, nullptr);
  EXPECT_EQ(128 + SIGPIPE, result.exitCode);
}

TEST(RunCommand, WorksWhenTheCallerHasItsStandardDescriptorsClosed) {
  // Scripts may start us with <&- >&- 2>&-: the pipes then take descriptors 0 to 2.
  int saved[3];
  for (int fd = 0; fd < 3; ++fd) saved[fd] = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
  for (int fd = 0; fd < 3; ++fd) ::close(fd);
  CommandOptions options;
  options.stdinData = "in";
  const CommandResult result = runCommand({"sh", "-c", "cat; printf err >&2"}, options);
  for (int fd = 0; fd < 3; ++fd) {
    ::dup2(saved[fd], fd);
    ::close(saved[fd]);
  }
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("in", result.stdoutText);
  EXPECT_EQ("err", result.stderrText);
}

// The observer stamps a tick a moment after the runner read its clock, and that
// moment varies on a loaded machine; spacings are checked with this much slack.
constexpr auto kStampJitter = std::chrono::milliseconds(5);

void expectSpacedAtLeast(const std::vector<Clock::time_point>& ticks,
                         std::chrono::milliseconds interval) {
  for (std::size_t i = 1; i < ticks.size(); ++i) {
    EXPECT_GE(ticks[i] - ticks[i - 1], interval - kStampJitter) << "tick " << i;
  }
}

TEST(RunCommand, TicksAboutOncePerIntervalWhileTheChildIsSilent) {
  RecordingObserver observer;
  CommandOptions options;
  options.progress = &observer;
  options.tickIntervalMs = 100;
  const Clock::time_point start = Clock::now();
  const CommandResult result = runCommand({"sleep", "0.5"}, options);
  const auto elapsed = Clock::now() - start;
  EXPECT_EQ(0, result.exitCode);
  // 5 on an idle machine; never more than the run had intervals.
  EXPECT_GE(observer.ticks_.size(), 3u);
  EXPECT_LE(observer.ticks_.size(),
            static_cast<std::size_t>(elapsed / std::chrono::milliseconds(100)));
  expectSpacedAtLeast(observer.ticks_, std::chrono::milliseconds(100));
  EXPECT_EQ(1, observer.finishCount());
}

TEST(RunCommand, OutputDoesNotBringTicksCloserThanTheInterval) {
  RecordingObserver observer;
  CommandOptions options;
  options.progress = &observer;
  options.tickIntervalMs = 50;
  const CommandResult result = runCommand(
      {"sh", "-c", "i=0; while [ $i -lt 30 ]; do echo $i; sleep 0.01; i=$((i+1)); done"},
      options);
  EXPECT_EQ(0, result.exitCode);
  EXPECT_FALSE(observer.ticks_.empty());
  expectSpacedAtLeast(observer.ticks_, std::chrono::milliseconds(50));
}

struct StopCase {
  const char* what;
  std::vector<std::string> argv;
  int expected;
  std::chrono::milliseconds atMost;  // from the flag being set to the return
};

// The flag is set from another thread, as a signal handler would set it while the
// runner sits in poll with no observer to wake it.
TEST(RunCommand, StopFlagEndsTheChildWithinItsGracePeriod) {
  using std::chrono::milliseconds;
  const milliseconds grace(kStopGraceMs);
  const StopCase cases[] = {
      {"obeys SIGTERM", {"sleep", "30"}, 143, milliseconds(1000)},
      {"closed its pipes, still runs", {"sh", "-c", "exec >&- 2>&-; exec sleep 30"}, 143,
       milliseconds(1000)},
      // Killed after the grace period; the grandchild's copy of the pipes (it is
      // gone a second later) must not keep the runner waiting.
      {"ignores SIGTERM", {"sh", "-c", "trap '' TERM; sleep 3 & sleep 30"}, 137,
       grace + milliseconds(1000)},
  };
  for (const StopCase& c : cases) {
    volatile std::sig_atomic_t flag = 0;
    CommandOptions options;
    options.stopFlag = &flag;
    Clock::time_point setAt;
    std::thread setter([&] {
      std::this_thread::sleep_for(milliseconds(300));
      setAt = Clock::now();
      flag = SIGINT;
    });
    const CommandResult result = runCommand(c.argv, options);
    const Clock::time_point returned = Clock::now();
    setter.join();
    EXPECT_EQ(c.expected, result.exitCode) << c.what;
    EXPECT_LT(returned - setAt, c.atMost) << c.what;
  }
}

}  // namespace
}  // namespace orvane
