#include "process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <string_view>

#include "process/capture_buffer.h"
#include "progress/progress_observer.h"

namespace orvane {
namespace {

// One read per readiness keeps a chatty child from starving the other pipe and
// the progress ticks, and bounds what an observer is handed at once. 64 KiB reads
// capture a multi-GiB output about 1.5 times faster (see docs/performance.md); the
// tools this program drives print a few KiB, so the chunk size stays at 4 KiB.
constexpr std::size_t kReadChunk = 4096;

void setNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags == -1) return;  // left blocking; poll still tells us when to act
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

/// Both ends of the child's three standard streams, between creation and the fork.
struct StreamEnds {
  int childIn = -1;
  int parentIn = -1;
  int parentOut = -1;
  int childOut = -1;
  int parentErr = -1;
  int childErr = -1;

  std::array<int*, 6> all() {
    return {&childIn, &parentIn, &parentOut, &childOut, &parentErr, &childErr};
  }

  /// False when one could not be made; what was made is left for closeAll.
  bool open(bool socketInput) {
    int ends[2];
    const int made =
        socketInput ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : ::pipe(ends);
    if (made != 0) return false;
    childIn = ends[0];
    parentIn = ends[1];
    if (::pipe(ends) != 0) return false;
    parentOut = ends[0];
    childOut = ends[1];
    if (::pipe(ends) != 0) return false;
    parentErr = ends[0];
    childErr = ends[1];
    return true;
  }

  void closeAll() {
    for (int* fd : all()) closeFd(*fd);
  }
};

// Only async-signal-safe calls between fork and exec: the argument array was built
// before the fork.
[[noreturn]] void execChild(StreamEnds ends, char* const* args, const SpawnOptions& how) {
  // Its own group, so that a stop reaches what the tool starts as well (an appliance).
  if (how.ownGroup) ::setpgid(0, 0);
  // The child gets the standard SIGPIPE behaviour even when our caller ignores or
  // blocks it: an ignored disposition and the signal mask survive exec.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGPIPE, &dfl, nullptr);
  sigset_t signals;
  sigemptyset(&signals);
  if (how.ownGroup) {
    sigprocmask(SIG_SETMASK, &signals, nullptr);
  } else {
    sigaddset(&signals, SIGPIPE);
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
  }

  // A caller started with 0, 1 or 2 closed gets pipe ends in those slots; moved
  // above 2 first, none of them is overwritten by one dup2 or closed after another.
  for (int* fd : ends.all()) {
    if (*fd <= STDERR_FILENO) *fd = ::fcntl(*fd, F_DUPFD, STDERR_FILENO + 1);
  }
  ::dup2(ends.childIn, STDIN_FILENO);
  ::dup2(ends.childOut, STDOUT_FILENO);
  ::dup2(ends.childErr, STDERR_FILENO);
  for (int* fd : ends.all()) ::close(*fd);
  ::execvp(args[0], args);
  ::_exit(127);
}

}  // namespace

void closeFd(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

void ChildOutput::readReady(ProgressObserver* progress) {
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

bool ChildProcess::spawn(const std::vector<std::string>& argv, const SpawnOptions& how) {
  StreamEnds ends;
  if (!ends.open(how.socketInput)) {
    ends.closeAll();
    return false;
  }
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  const pid_t child = ::fork();
  if (child == -1) {
    ends.closeAll();
    return false;
  }
  if (child == 0) execChild(ends, args.data(), how);

  // Also from this side: a stop that comes before the child ran setpgid must still
  // find the group.
  if (how.ownGroup) ::setpgid(child, child);
  pid = child;
  closeFd(ends.childIn);
  closeFd(ends.childOut);
  closeFd(ends.childErr);
  in = ends.parentIn;
  out.fd = ends.parentOut;
  err.fd = ends.parentErr;
  setNonBlocking(in);
  setNonBlocking(out.fd);
  setNonBlocking(err.fd);
  return true;
}

ChildProcess::Ready ChildProcess::wait(bool feeding, int timeoutMs) const {
  // poll skips a negative descriptor and reports nothing for it.
  std::array<pollfd, 3> set{pollfd{feeding ? in : -1, POLLOUT, 0},
                            pollfd{out.fd, POLLIN, 0}, pollfd{err.fd, POLLIN, 0}};
  Ready ready;
  if (::poll(set.data(), set.size(), timeoutMs) == -1) {
    ready.error = errno;
    return ready;
  }
  constexpr short kReadyToWrite = POLLOUT | POLLERR | POLLHUP;
  constexpr short kReadyToRead = POLLIN | POLLERR | POLLHUP;
  ready.in = (set[0].revents & kReadyToWrite) != 0;
  ready.out = (set[1].revents & kReadyToRead) != 0;
  ready.err = (set[2].revents & kReadyToRead) != 0;
  return ready;
}

void ChildProcess::closeAll() {
  closeFd(in);
  closeFd(out.fd);
  closeFd(err.fd);
}

int exitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int waitForExit(pid_t pid) {
  int status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(pid, &status, 0);
  } while (waited == -1 && errno == EINTR);
  return waited == pid ? exitCodeOf(status) : -1;
}

}  // namespace orvane
