#pragma once

#include <csignal>
#include <string>
#include <vector>

namespace orvane {

class ProgressObserver;

struct CommandOptions {
  std::string stdinData;                 ///< empty: the child's stdin is closed at once
  ProgressObserver* progress = nullptr;  ///< not owned; may be null
  int tickIntervalMs = 100;              ///< tick spacing and poll timeout, with progress
  const volatile std::sig_atomic_t* stopFlag = nullptr;  ///< non-zero: ask the child to stop (SIGTERM, then SIGKILL after a grace period)
};

/// How long a child asked to stop may take before it is killed outright.
inline constexpr int kStopGraceMs = 2000;

struct CommandResult {
  /// -1: not started or not collected; 127: could not be executed;
  /// 128 + n: killed by signal n; otherwise the exit status.
  int exitCode = -1;
  std::string stdoutText;
  std::string stderrText;
  bool ok() const { return exitCode == 0; }
};

/// Runs argv[0] (looked up on PATH) with the remaining elements as its arguments,
/// never through a shell. Never throws for a failure of the child or the system:
/// every failure is folded into the exit code. With a stop flag, the flag is read at
/// least every tick interval; once it is set the child gets SIGTERM, then SIGKILL
/// after kStopGraceMs, and the call returns without waiting for pipes that the
/// child's own children may still hold open.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const CommandOptions& options = {});

}  // namespace orvane
