#include "support/pty_program.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvane::testing {

using Clock = std::chrono::steady_clock;

PtyProgram::PtyProgram(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  if ((pid_ = ::forkpty(&master_, nullptr, nullptr, nullptr)) == 0) {
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
}

PtyProgram::~PtyProgram() {
  if (pid_ > 0 && !reaped_) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
  if (master_ >= 0) ::close(master_);
}

void PtyProgram::readFor(std::chrono::milliseconds slice) {
  pollfd entry{master_, POLLIN, 0};
  char buffer[4096];
  const ssize_t count = ::poll(&entry, 1, static_cast<int>(slice.count())) > 0
                            ? ::read(master_, buffer, sizeof buffer) : 0;
  if (count > 0) output_.append(buffer, static_cast<std::size_t>(count));
  // EIO once every holder of the terminal has gone: nothing more to read.
  if (count < 0) ::poll(nullptr, 0, static_cast<int>(slice.count()));
}

bool PtyProgram::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
  for (const auto end = Clock::now() + timeout; output_.find(text) == std::string::npos;) {
    if (pid_ <= 0 || Clock::now() >= end) return false;
    readFor(std::chrono::milliseconds(50));
  }
  return true;
}

void PtyProgram::type(const std::string& bytes) {
  if (master_ >= 0) (void)!::write(master_, bytes.data(), bytes.size());
}

int PtyProgram::wait(std::chrono::milliseconds timeout) {
  for (auto end = Clock::now() + timeout; pid_ > 0 && Clock::now() < end;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) {
      readFor(std::chrono::milliseconds(50));
      continue;
    }
    reaped_ = true;
    // Whatever it wrote last is still in the terminal's buffer.
    for (int i = 0; i < 10; ++i) readFor(std::chrono::milliseconds(20));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return -1;
}

}  // namespace orvane::testing
