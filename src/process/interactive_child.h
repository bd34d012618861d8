#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "process/child_process.h"

namespace orvane {

class ProgressObserver;

/// A child process driven one request at a time over its standard input, kept open
/// between requests, for tools whose start-up is the expensive part (guestfish's
/// appliance). Started without a shell in its own process group, so that stopping it
/// also stops whatever it started (qemu). Whatever way the object is left, the child
/// and its group are gone when the destructor returns.
class InteractiveChild {
 public:
  struct Options {
    ProgressObserver* progress = nullptr;  ///< not owned; output, ticks, one finish
    int tickIntervalMs = 100;
    /// Non-zero asks the child to stop: the pending request gives up at once.
    const volatile std::sig_atomic_t* stopFlag = nullptr;
    /// How long a stopped child gets after SIGTERM before SIGKILL.
    int graceMs = 3000;
  };

  explicit InteractiveChild(Options options) : options_(options) {}
  ~InteractiveChild();
  InteractiveChild(const InteractiveChild&) = delete;
  InteractiveChild& operator=(const InteractiveChild&) = delete;

  /// Starts argv[0] from PATH. False when it could not be started at all.
  bool start(const std::vector<std::string>& argv);

  /// Sends `input`, then reads standard output until a line equal to `endLine`;
  /// returns what came before that line. No value when the child ended or closed its
  /// output first, or when the stop flag was raised (the child is then stopped).
  std::optional<std::string> exchange(const std::string& input, const std::string& endLine);

  /// Closes the child's input and waits for it to exit. Returns its exit code as
  /// runCommand maps it (128 + n for signal n, -1 when not collected).
  int finish();

  /// SIGTERM to the child's group, SIGKILL after the grace period, then waits until
  /// the group is gone. Returns the exit code as `finish` does.
  int stop();

  /// Everything the child wrote to standard error so far.
  const std::string& errorText() const { return child_.err.text; }
  /// True once the stop flag has been seen.
  bool stopRequested() const { return stopRequested_; }

 private:
  bool stopFlagRaised() const;
  /// One poll round; false when nothing more can come from the child.
  bool pump(const std::string& input, std::size_t& written);
  void tick();
  int reap();

  Options options_;
  ChildProcess child_;  ///< its standard output holds what no exchange has taken yet
  int exitCode_ = -1;
  bool reaped_ = false;
  bool stopRequested_ = false;
  long long lastTickMs_ = 0;
};

}  // namespace orvane
