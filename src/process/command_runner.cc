#include "process/command_runner.h"

#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>

#include "process/child_process.h"
#include "progress/progress_observer.h"

namespace orvane {
namespace {

// A child that stops reading its input turns our write into SIGPIPE, whose default
// action would kill this program mid-conversion. Pipes have no MSG_NOSIGNAL, so
// SIGPIPE is blocked for the duration of the one write and, if this write raised it,
// the pending signal is consumed before the mask is restored. Blocking around the
// call rather than ignoring SIGPIPE process-wide leaves the caller's disposition (and
// the one children inherit) untouched. The program is single-threaded, so the
// process mask is the thread mask. Returns write()'s result with its errno.
ssize_t writeWithoutSigpipe(int fd, const char* data, std::size_t size) {
  sigset_t pipeOnly;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  const bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;

  sigset_t saved;
  sigprocmask(SIG_BLOCK, &pipeOnly, &saved);
  const ssize_t written = ::write(fd, data, size);
  const int writeErrno = errno;
  if (written == -1 && writeErrno == EPIPE && !alreadyPending) {
    const timespec zero{0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &zero) == -1 && errno == EINTR) {
    }
  }
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  errno = writeErrno;
  return written;
}

using Clock = std::chrono::steady_clock;

// Asks the child to stop once the caller's flag is set: SIGTERM first, so that it can
// tidy up, then SIGKILL if it is still there after the grace period. The child is
// signalled only while it has not been reaped, so a recycled pid is never hit.
class StopRequest {
 public:
  explicit StopRequest(const volatile std::sig_atomic_t* flag) : flag_(flag) {}

  /// Acts on the flag; true once the child has been asked to stop.
  bool update(pid_t pid) {
    if (!asked_ && (flag_ == nullptr || *flag_ == 0)) return false;
    const Clock::time_point now = Clock::now();
    if (!asked_) {
      ::kill(pid, SIGTERM);
      asked_ = true;
      askedAt_ = now;
    } else if (!killed_ && now - askedAt_ >= std::chrono::milliseconds(kStopGraceMs)) {
      ::kill(pid, SIGKILL);
      killed_ = true;
    }
    return true;
  }

 private:
  const volatile std::sig_atomic_t* flag_;
  bool asked_ = false;
  bool killed_ = false;
  Clock::time_point askedAt_;
};

// One command from start to exit code: the child, how much of its input it has
// taken, when the observer was last ticked, and whether it was asked to stop.
class RunningCommand {
 public:
  explicit RunningCommand(const CommandOptions& options)
      : options_(options), progress_(options.progress), stop_(options.stopFlag) {}

  bool start(const std::vector<std::string>& argv) {
    if (!child_.spawn(argv, SpawnOptions{})) return false;
    if (options_.stdinData.empty()) closeFd(child_.in);
    lastTick_ = Clock::now();
    return true;
  }

  /// Feeds the input and reads both outputs until the child closes them or, once
  /// asked to stop, until it has exited.
  void pump() {
    // A stop flag is only read when poll wakes, so it needs the tick as a timeout too.
    const int timeoutMs = progress_ != nullptr || options_.stopFlag != nullptr
                              ? options_.tickIntervalMs
                              : -1;
    while (child_.out.open() || child_.err.open()) {
      // EINTR: a signal handler ran (the conversion's only records the signal); the
      // descriptors are not looked at, but the stop flag below is. Reads and writes
      // treat EINTR like EAGAIN; waitpid is retried in place; close is never retried.
      const ChildProcess::Ready ready = child_.wait(true, timeoutMs);
      if (ready.error != 0 && ready.error != EINTR) return;
      if (ready.in) feedInput();
      if (ready.out) child_.out.readReady(progress_);
      if (ready.err) child_.err.readReady(progress_);
      tick();
      // Once asked to stop, the child's end is what counts, not the end of its pipes:
      // a grandchild may hold them open for as long as it likes.
      if (stop_.update(child_.pid) && ::waitpid(child_.pid, &status_, WNOHANG) == child_.pid) {
        reaped_ = true;
        return;
      }
    }
  }

  /// Closes our ends, waits for the child, tells the observer it is over, and hands
  /// what it wrote and its exit code to `result`.
  void finish(CommandResult& result) {
    child_.closeAll();
    int exitCode = -1;
    if (reaped_) {
      exitCode = exitCodeOf(status_);
    } else if (options_.stopFlag == nullptr) {
      exitCode = waitForExit(child_.pid);
    } else {
      exitCode = waitWhileStoppable();
    }
    if (progress_ != nullptr) progress_->onFinish();
    result.exitCode = exitCode;
    result.stdoutText = std::move(child_.out.text);
    result.stderrText = std::move(child_.err.text);
  }

 private:
  void feedInput() {
    const std::string& input = options_.stdinData;
    const ssize_t count =
        writeWithoutSigpipe(child_.in, input.data() + written_, input.size() - written_);
    if (count > 0) {
      written_ += static_cast<std::size_t>(count);
    } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
      closeFd(child_.in);  // typically EPIPE: the child closed its input
    }
    if (written_ == input.size()) closeFd(child_.in);
  }

  void tick() {
    if (progress_ == nullptr) return;
    const Clock::time_point now = Clock::now();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastTick_);
    if (elapsed.count() >= options_.tickIntervalMs) {
      progress_->onTick();
      lastTick_ = now;
    }
  }

  // A child that closed its pipes may still run; with a stop flag the wait must
  // stay able to act on it, so it is a short-interval poll instead of a block.
  int waitWhileStoppable() {
    constexpr int kReapPollMs = 10;
    pid_t waited;
    while ((waited = ::waitpid(child_.pid, &status_, WNOHANG)) == 0 ||
           (waited == -1 && errno == EINTR)) {
      stop_.update(child_.pid);
      ::poll(nullptr, 0, kReapPollMs);
    }
    return waited == child_.pid ? exitCodeOf(status_) : -1;
  }

  const CommandOptions& options_;
  ProgressObserver* const progress_;
  ChildProcess child_;
  StopRequest stop_;
  std::size_t written_ = 0;
  Clock::time_point lastTick_;
  int status_ = 0;
  bool reaped_ = false;
};

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv,
                         const CommandOptions& options) {
  CommandResult result;
  if (argv.empty()) return result;
  RunningCommand command(options);
  if (!command.start(argv)) return result;
  command.pump();
  command.finish(result);
  return result;
}

}  // namespace orvane
