#pragma once

#include <string>
#include <vector>

namespace orvane {

class ProgressObserver;

struct CommandOptions {
  std::string stdinData;                 ///< empty: the child's stdin is closed at once
  ProgressObserver* progress = nullptr;  ///< not owned; may be null
  int tickIntervalMs = 100;              ///< tick spacing and poll timeout, with progress
};

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
/// every failure is folded into the exit code.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const CommandOptions& options = {});

}  // namespace orvane
