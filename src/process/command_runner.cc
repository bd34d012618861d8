#include "process/command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>

#include "process/capture_buffer.h"
#include "progress/progress_observer.h"

namespace orvane {
namespace {

// One read per readiness keeps a chatty child from starving the other pipe and
// the progress ticks, and bounds what an observer is handed at once. 64 KiB reads
// capture a multi-GiB output about 1.5 times faster (see docs/performance.md); the
// tools this program drives print a few KiB, so the chunk size stays at 4 KiB.
constexpr std::size_t kReadChunk = 4096;

// close() is never retried: after EINTR the descriptor may already be gone, and a
// retry could close one that another part of the program has just opened.
void closeFd(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

void setNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags == -1) return;  // left blocking; poll still tells us when to act
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

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

// Only async-signal-safe calls between fork and exec: the argument array was built
// before the fork.
[[noreturn]] void execChild(std::array<int, 6> fds, char* const* args) {
  // The child gets the standard SIGPIPE behaviour even when our caller ignores or
  // blocks it: an ignored disposition and the signal mask survive exec.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGPIPE, &dfl, nullptr);
  sigset_t pipeOnly;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigprocmask(SIG_UNBLOCK, &pipeOnly, nullptr);

  // A caller started with 0, 1 or 2 closed gets pipe ends in those slots; moved
  // above 2 first, none of them is overwritten by one dup2 or closed after another.
  for (int& fd : fds) {
    if (fd <= STDERR_FILENO) fd = ::fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
  }
  ::dup2(fds[0], STDIN_FILENO);
  ::dup2(fds[3], STDOUT_FILENO);
  ::dup2(fds[5], STDERR_FILENO);
  for (int fd : fds) ::close(fd);
  ::execvp(args[0], args);
  ::_exit(127);
}

// Reads one chunk from `fd` into `text` and the observer; closes `fd` at end of file
// or on a real error. EAGAIN and EINTR leave it for the next poll.
void drain(int& fd, std::string& text, ProgressObserver* progress) {
  char buffer[kReadChunk];
  const ssize_t count = ::read(fd, buffer, sizeof buffer);
  if (count > 0) {
    const std::string_view chunk(buffer, static_cast<std::size_t>(count));
    appendCaptured(text, chunk);
    if (progress != nullptr) progress->onOutput(chunk);
    return;
  }
  if (count == -1 && (errno == EAGAIN || errno == EINTR)) return;
  closeFd(fd);
}

using Clock = std::chrono::steady_clock;

// Asks the child to stop once the caller's flag is set: SIGTERM first, so that it can
// tidy up, then SIGKILL if it is still there after the grace period. The child is
// signalled only while it has not been reaped, so a recycled pid is never hit.
class StopRequest {
 public:
  StopRequest(pid_t pid, const volatile std::sig_atomic_t* flag) : pid_(pid), flag_(flag) {}

  /// Acts on the flag; true once the child has been asked to stop.
  bool update() {
    if (!asked_ && (flag_ == nullptr || *flag_ == 0)) return false;
    const Clock::time_point now = Clock::now();
    if (!asked_) {
      ::kill(pid_, SIGTERM);
      asked_ = true;
      askedAt_ = now;
    } else if (!killed_ && now - askedAt_ >= std::chrono::milliseconds(kStopGraceMs)) {
      ::kill(pid_, SIGKILL);
      killed_ = true;
    }
    return true;
  }

 private:
  pid_t pid_;
  const volatile std::sig_atomic_t* flag_;
  bool asked_ = false;
  bool killed_ = false;
  Clock::time_point askedAt_;
};

int mapStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv,
                         const CommandOptions& options) {
  CommandResult result;
  if (argv.empty()) return result;

  // in read, in write, out read, out write, err read, err write
  std::array<int, 6> fds{-1, -1, -1, -1, -1, -1};
  for (std::size_t i = 0; i < fds.size(); i += 2) {
    int ends[2];
    if (::pipe(ends) != 0) {
      for (int& fd : fds) closeFd(fd);
      return result;
    }
    fds[i] = ends[0];
    fds[i + 1] = ends[1];
  }

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid == -1) {
    for (int& fd : fds) closeFd(fd);
    return result;
  }
  if (pid == 0) execChild(fds, args.data());

  closeFd(fds[0]);
  closeFd(fds[3]);
  closeFd(fds[5]);
  int inFd = fds[1];
  int outFd = fds[2];
  int errFd = fds[4];
  setNonBlocking(inFd);
  setNonBlocking(outFd);
  setNonBlocking(errFd);

  const std::string& input = options.stdinData;
  if (input.empty()) closeFd(inFd);

  ProgressObserver* const progress = options.progress;
  // A stop flag is only read when poll wakes, so it needs the tick as a timeout too.
  const int timeoutMs =
      progress != nullptr || options.stopFlag != nullptr ? options.tickIntervalMs : -1;
  StopRequest stop(pid, options.stopFlag);
  int status = 0;
  bool reaped = false;
  Clock::time_point lastTick = Clock::now();
  std::size_t written = 0;

  constexpr short kReadyToWrite = POLLOUT | POLLERR | POLLHUP;
  constexpr short kReadyToRead = POLLIN | POLLERR | POLLHUP;
  while (outFd >= 0 || errFd >= 0) {
    std::array<pollfd, 3> set{};
    nfds_t used = 0;
    int inSlot = -1, outSlot = -1, errSlot = -1;
    if (inFd >= 0) {
      inSlot = static_cast<int>(used);
      set[used++] = pollfd{inFd, POLLOUT, 0};
    }
    if (outFd >= 0) {
      outSlot = static_cast<int>(used);
      set[used++] = pollfd{outFd, POLLIN, 0};
    }
    if (errFd >= 0) {
      errSlot = static_cast<int>(used);
      set[used++] = pollfd{errFd, POLLIN, 0};
    }

    // EINTR: a signal handler ran (the conversion's only records the signal); the
    // descriptors are not looked at, but the stop flag below is. Reads and writes
    // treat EINTR like EAGAIN; waitpid is retried in place; close is never retried.
    if (::poll(set.data(), used, timeoutMs) == -1) {
      if (errno != EINTR) break;
      for (pollfd& entry : set) entry.revents = 0;
    }

    if (inSlot >= 0 && (set[inSlot].revents & kReadyToWrite) != 0) {
      const ssize_t count =
          writeWithoutSigpipe(inFd, input.data() + written, input.size() - written);
      if (count > 0) {
        written += static_cast<std::size_t>(count);
      } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
        closeFd(inFd);  // typically EPIPE: the child closed its input
      }
      if (written == input.size()) closeFd(inFd);
    }
    if (outSlot >= 0 && (set[outSlot].revents & kReadyToRead) != 0) {
      drain(outFd, result.stdoutText, progress);
    }
    if (errSlot >= 0 && (set[errSlot].revents & kReadyToRead) != 0) {
      drain(errFd, result.stderrText, progress);
    }

    if (progress != nullptr) {
      const Clock::time_point now = Clock::now();
      const auto elapsed =
          std::chrono::duration_cast<std::chrono::milliseconds>(now - lastTick);
      if (elapsed.count() >= options.tickIntervalMs) {
        progress->onTick();
        lastTick = now;
      }
    }

    // Once asked to stop, the child's end is what counts, not the end of its pipes:
    // a grandchild may hold them open for as long as it likes.
    if (stop.update() && ::waitpid(pid, &status, WNOHANG) == pid) {
      reaped = true;
      break;
    }
  }

  closeFd(inFd);
  closeFd(outFd);
  closeFd(errFd);

  pid_t waited = reaped ? pid : -1;
  if (!reaped && options.stopFlag == nullptr) {
    do {
      waited = ::waitpid(pid, &status, 0);
    } while (waited == -1 && errno == EINTR);
  } else if (!reaped) {
    // A child that closed its pipes may still run; with a stop flag the wait must
    // stay able to act on it, so it is a short-interval poll instead of a block.
    constexpr int kReapPollMs = 10;
    while ((waited = ::waitpid(pid, &status, WNOHANG)) == 0 ||
           (waited == -1 && errno == EINTR)) {
      stop.update();
      ::poll(nullptr, 0, kReapPollMs);
    }
  }

  if (progress != nullptr) progress->onFinish();
  if (waited == pid) result.exitCode = mapStatus(status);
  return result;
}

}  // namespace orvane
