#include "process/interactive_child.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string_view>

#include "progress/progress_observer.h"

namespace orvane {
namespace {

constexpr int kPollStepMs = 20;

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void sleepMs(int ms) { ::poll(nullptr, 0, ms); }

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
  if (child_.pid > 0 && !reaped_) stop();
}

bool InteractiveChild::start(const std::vector<std::string>& argv) {
  if (argv.empty() || child_.pid > 0) return false;
  // The input is a socket rather than a pipe: send() with MSG_NOSIGNAL turns a child
  // that stopped reading into EPIPE instead of a SIGPIPE that would kill us. Its own
  // group lets a stop reach the appliance the tool starts.
  if (!child_.spawn(argv, SpawnOptions{.socketInput = true, .ownGroup = true})) return false;
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
  const bool feeding = written < input.size();
  if (!child_.anyOpen(feeding)) return false;
  // A timeout whenever someone watches: the spinner needs ticks, and the stop flag
  // must be seen even if its signal arrived just before poll was entered.
  const bool watched = options_.progress != nullptr || options_.stopFlag != nullptr;
  const ChildProcess::Ready ready = child_.wait(feeding, watched ? options_.tickIntervalMs : -1);
  // EINTR: a handler recorded a signal; the caller looks at the stop flag.
  if (ready.error != 0) return ready.error == EINTR || ready.error == EAGAIN;

  if (ready.in) {
    const ssize_t count = ::send(child_.in, input.data() + written, input.size() - written,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == -1 && errno != EAGAIN && errno != EINTR) {
      written = input.size();  // the child no longer reads; its output tells the rest
    }
  }
  if (ready.out) child_.out.readReady(options_.progress);
  if (ready.err) child_.err.readReady(options_.progress);
  tick();
  return true;
}

std::optional<std::string> InteractiveChild::exchange(const std::string& input,
                                                      const std::string& endLine) {
  if (child_.pid <= 0 || reaped_) return std::nullopt;
  std::size_t written = 0;
  while (true) {
    if (stopFlagRaised()) {
      stopRequested_ = true;
      stop();
      return std::nullopt;
    }
    if (std::optional<std::string> answer = takeUntilLine(child_.out.text, endLine)) {
      return answer;
    }
    if (!child_.out.open()) return std::nullopt;
    if (!pump(input, written)) return std::nullopt;
  }
}

int InteractiveChild::finish() {
  if (child_.pid <= 0) return -1;
  if (reaped_) return exitCode_;
  closeFd(child_.in);
  const std::string none;
  std::size_t written = 0;
  // The tool may still be shutting its appliance down: keep reading (and ticking)
  // until it closes its output, and honour a stop request meanwhile.
  while (child_.out.open() || child_.err.open()) {
    if (stopFlagRaised()) {
      stopRequested_ = true;
      return stop();
    }
    if (!pump(none, written)) break;
  }
  return reap();
}

int InteractiveChild::stop() {
  const pid_t pid = child_.pid;
  if (pid <= 0) return -1;
  if (reaped_) return exitCode_;
  closeFd(child_.in);
  if (::kill(-pid, SIGTERM) != 0) ::kill(pid, SIGTERM);
  const long long deadline = nowMs() + options_.graceMs;
  int status = 0;
  while (true) {
    const pid_t waited = ::waitpid(pid, &status, WNOHANG);
    if (waited == pid) {
      exitCode_ = exitCodeOf(status);
      reaped_ = true;
      break;
    }
    if (waited == -1 && errno != EINTR) break;
    if (nowMs() >= deadline) break;
    sleepMs(kPollStepMs);
  }
  if (!reaped_ && ::kill(-pid, SIGKILL) != 0) ::kill(pid, SIGKILL);
  return reap();
}

int InteractiveChild::reap() {
  const pid_t pid = child_.pid;
  child_.closeAll();
  if (!reaped_) {
    exitCode_ = waitForExit(pid);
    reaped_ = true;
  }
  // What the tool started (qemu) is not our child and cannot be waited for; the
  // group is gone once no member is left. Whatever outlives the grace is killed.
  const long long deadline = nowMs() + options_.graceMs;
  bool killed = false;
  while (::kill(-pid, 0) == 0) {
    if (!killed && nowMs() >= deadline) {
      ::kill(-pid, SIGKILL);
      killed = true;
    }
    sleepMs(kPollStepMs);
    if (killed && nowMs() >= deadline + options_.graceMs) break;
  }
  if (options_.progress != nullptr) options_.progress->onFinish();
  return exitCode_;
}

}  // namespace orvane
