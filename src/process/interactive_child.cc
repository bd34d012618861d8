#include "process/interactive_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string_view>

#include "progress/progress_observer.h"

namespace orvane {
namespace {

constexpr std::size_t kReadChunk = 4096;
constexpr int kPollStepMs = 20;

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// close() is never retried: after EINTR the descriptor may already be gone.
void closeFd(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

void setNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags != -1) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void sleepMs(int ms) { ::poll(nullptr, 0, ms); }

int mapStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Only async-signal-safe calls between fork and exec: the argument array was built
// before the fork. fds: in (child end), in (parent end), out r, out w, err r, err w.
[[noreturn]] void execChild(std::array<int, 6> fds, char* const* args) {
  // Its own group, so that a stop reaches the appliance the tool starts as well.
  ::setpgid(0, 0);
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGPIPE, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // A caller started with 0, 1 or 2 closed gets our ends in those slots; moved above
  // 2 first, none is overwritten by one dup2 or closed after another.
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

/// The text before the first line equal to `endLine`, removing it and that line from
/// `buffer`; no value while no such line has arrived.
std::optional<std::string> takeUntilLine(std::string& buffer, const std::string& endLine) {
  std::size_t start = 0;
  while (start < buffer.size()) {
    const std::size_t end = buffer.find('\n', start);
    if (end == std::string::npos) return std::nullopt;
    if (std::string_view(buffer).substr(start, end - start) == endLine) {
      std::string before = buffer.substr(0, start);
      buffer.erase(0, end + 1);
      return before;
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace

InteractiveChild::~InteractiveChild() {
  if (pid_ > 0 && !reaped_) stop();
}

bool InteractiveChild::start(const std::vector<std::string>& argv) {
  if (argv.empty() || pid_ > 0) return false;
  std::array<int, 6> fds{-1, -1, -1, -1, -1, -1};
  // The input is a socket rather than a pipe: send() with MSG_NOSIGNAL turns a child
  // that stopped reading into EPIPE instead of a SIGPIPE that would kill us.
  int inPair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, inPair) != 0) return false;
  fds[0] = inPair[0];
  fds[1] = inPair[1];
  for (std::size_t i = 2; i < fds.size(); i += 2) {
    int ends[2];
    if (::pipe(ends) != 0) {
      for (int& fd : fds) closeFd(fd);
      return false;
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
    return false;
  }
  if (pid == 0) execChild(fds, args.data());

  // Also from this side: a stop that comes before the child ran setpgid must still
  // find the group.
  ::setpgid(pid, pid);
  pid_ = pid;
  closeFd(fds[0]);
  closeFd(fds[3]);
  closeFd(fds[5]);
  inFd_ = fds[1];
  outFd_ = fds[2];
  errFd_ = fds[4];
  setNonBlocking(inFd_);
  setNonBlocking(outFd_);
  setNonBlocking(errFd_);
  lastTickMs_ = nowMs();
  return true;
}

bool InteractiveChild::stopFlagRaised() const {
  return options_.stopFlag != nullptr && *options_.stopFlag != 0;
}

void InteractiveChild::tick() {
  if (options_.progress == nullptr) return;
  const long long now = nowMs();
  if (now - lastTickMs_ >= options_.tickIntervalMs) {
    options_.progress->onTick();
    lastTickMs_ = now;
  }
}

bool InteractiveChild::pump(const std::string& input, std::size_t& written) {
  std::array<pollfd, 3> set{};
  nfds_t used = 0;
  int inSlot = -1, outSlot = -1, errSlot = -1;
  if (inFd_ >= 0 && written < input.size()) {
    inSlot = static_cast<int>(used);
    set[used++] = pollfd{inFd_, POLLOUT, 0};
  }
  if (outFd_ >= 0) {
    outSlot = static_cast<int>(used);
    set[used++] = pollfd{outFd_, POLLIN, 0};
  }
  if (errFd_ >= 0) {
    errSlot = static_cast<int>(used);
    set[used++] = pollfd{errFd_, POLLIN, 0};
  }
  if (used == 0) return false;
  // A timeout whenever someone watches: the spinner needs ticks, and the stop flag
  // must be seen even if its signal arrived just before poll was entered.
  const bool watched = options_.progress != nullptr || options_.stopFlag != nullptr;
  const int timeout = watched ? options_.tickIntervalMs : -1;
  if (::poll(set.data(), used, timeout) == -1) {
    // EINTR: a handler recorded a signal; the caller looks at the stop flag.
    return errno == EINTR || errno == EAGAIN;
  }

  constexpr short kReadyToWrite = POLLOUT | POLLERR | POLLHUP;
  constexpr short kReadyToRead = POLLIN | POLLERR | POLLHUP;
  if (inSlot >= 0 && (set[inSlot].revents & kReadyToWrite) != 0) {
    const ssize_t count = ::send(inFd_, input.data() + written, input.size() - written,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
      written = input.size();  // the child no longer reads; its output tells the rest
    }
  }
  auto drain = [this](int& fd, std::string& text) {
    char buffer[kReadChunk];
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count > 0) {
      const std::string_view chunk(buffer, static_cast<std::size_t>(count));
      text.append(chunk);
      if (options_.progress != nullptr) options_.progress->onOutput(chunk);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      closeFd(fd);
    }
  };
  if (outSlot >= 0 && (set[outSlot].revents & kReadyToRead) != 0) drain(outFd_, pendingOut_);
  if (errSlot >= 0 && (set[errSlot].revents & kReadyToRead) != 0) drain(errFd_, errorText_);
  tick();
  return true;
}

std::optional<std::string> InteractiveChild::exchange(const std::string& input,
                                                      const std::string& endLine) {
  if (pid_ <= 0 || reaped_) return std::nullopt;
  std::size_t written = 0;
  while (true) {
    if (stopFlagRaised()) {
      stopRequested_ = true;
      stop();
      return std::nullopt;
    }
    if (std::optional<std::string> answer = takeUntilLine(pendingOut_, endLine)) {
      return answer;
    }
    if (outFd_ < 0) return std::nullopt;
    if (!pump(input, written)) return std::nullopt;
  }
}

int InteractiveChild::finish() {
  if (pid_ <= 0) return -1;
  if (reaped_) return exitCode_;
  closeFd(inFd_);
  const std::string none;
  std::size_t written = 0;
  // The tool may still be shutting its appliance down: keep reading (and ticking)
  // until it closes its output, and honour a stop request meanwhile.
  while (outFd_ >= 0 || errFd_ >= 0) {
    if (stopFlagRaised()) {
      stopRequested_ = true;
      return stop();
    }
    if (!pump(none, written)) break;
  }
  return reap();
}

int InteractiveChild::stop() {
  if (pid_ <= 0) return -1;
  if (reaped_) return exitCode_;
  closeFd(inFd_);
  if (::kill(-pid_, SIGTERM) != 0) ::kill(pid_, SIGTERM);
  const long long deadline = nowMs() + options_.graceMs;
  int status = 0;
  while (true) {
    const pid_t waited = ::waitpid(pid_, &status, WNOHANG);
    if (waited == pid_) {
      exitCode_ = mapStatus(status);
      reaped_ = true;
      break;
    }
    if (waited == -1 && errno != EINTR) break;
    if (nowMs() >= deadline) break;
    sleepMs(kPollStepMs);
  }
  if (!reaped_ && ::kill(-pid_, SIGKILL) != 0) ::kill(pid_, SIGKILL);
  return reap();
}

int InteractiveChild::reap() {
  closeFd(inFd_);
  closeFd(outFd_);
  closeFd(errFd_);
  if (!reaped_) {
    int status = 0;
    pid_t waited;
    do {
      waited = ::waitpid(pid_, &status, 0);
    } while (waited == -1 && errno == EINTR);
    if (waited == pid_) exitCode_ = mapStatus(status);
    reaped_ = true;
  }
  {
    // What the tool started (qemu) is not our child and cannot be waited for; the
    // group is gone once no member is left. Whatever outlives the grace is killed.
    const long long deadline = nowMs() + options_.graceMs;
    bool killed = false;
    while (::kill(-pid_, 0) == 0) {
      if (!killed && nowMs() >= deadline) {
        ::kill(-pid_, SIGKILL);
        killed = true;
      }
      sleepMs(kPollStepMs);
      if (killed && nowMs() >= deadline + options_.graceMs) break;
    }
  }
  if (options_.progress != nullptr) options_.progress->onFinish();
  return exitCode_;
}

}  // namespace orvane
