#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvane {

class ProgressObserver;

// What runCommand and InteractiveChild share: start a child, poll and read it, reap it.

/// Closes `fd` if open and marks it closed. close() is never retried: after EINTR
/// the descriptor may already be gone, and a retry could close one that another part
/// of the program has just opened.
void closeFd(int& fd);

/// Our end of one of a child's output pipes and everything read from it so far.
struct ChildOutput {
  int fd = -1;
  std::string text;

  bool open() const { return fd >= 0; }
  /// Reads one chunk of what is ready into `text` and hands it to `progress` (may be
  /// null); closes the pipe at end of file or on a real error. EAGAIN and EINTR leave
  /// it for the next poll.
  void readReady(ProgressObserver* progress);
};

/// How ChildProcess::spawn sets the child up.
struct SpawnOptions {
  /// Standard input as a socket, so that send() with MSG_NOSIGNAL can feed it.
  bool socketInput = false;
  /// In a process group of its own, with no signal blocked; else in ours, with only
  /// SIGPIPE unblocked.
  bool ownGroup = false;
};

/// A started child: its pid and our non-blocking ends of its standard streams.
struct ChildProcess {
  pid_t pid = -1;
  int in = -1;
  ChildOutput out;
  ChildOutput err;

  /// Forks and executes argv[0] from PATH, never through a shell; a child that cannot
  /// be executed exits with 127. False, with nothing left open, when the descriptors
  /// or the fork could not be had.
  bool spawn(const std::vector<std::string>& argv, const SpawnOptions& how);

  /// Which of the ends given to `wait` are ready.
  struct Ready {
    int error = 0;  ///< poll's errno when it failed; then nothing is ready
    bool in = false;
    bool out = false;
    bool err = false;
  };
  /// Polls the open ends, `in` only when `feeding`, for up to `timeoutMs` (-1: no
  /// limit). EINTR is not retried here: the caller has a stop flag to look at first.
  Ready wait(bool feeding, int timeoutMs) const;
  bool anyOpen(bool feeding) const { return (feeding && in >= 0) || out.open() || err.open(); }

  void closeAll();
};

/// A wait status as an exit code: the exit status, 128 + n for signal n, else -1.
int exitCodeOf(int status);
/// Blocks until `pid` exits (waitpid retried on EINTR) and returns its exit code;
/// -1 when it cannot be collected.
int waitForExit(pid_t pid);

}  // namespace orvane
