#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace orvane::testing {

/// A program started on a fresh pseudo-terminal, as from an interactive shell: it
/// leads its own session and is the terminal's foreground process group, so a
/// typed "\x03" (Ctrl-C) sends SIGINT to it and every child it started.
class PtyProgram {
 public:
  explicit PtyProgram(const std::vector<std::string>& argv);
  /// Kills the program if it still runs.
  ~PtyProgram();
  PtyProgram(const PtyProgram&) = delete;
  PtyProgram& operator=(const PtyProgram&) = delete;

  /// Reads the terminal until `text` has appeared; false after `timeout`.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout);
  /// Writes `bytes` to the terminal as if typed.
  void type(const std::string& bytes);
  /// Waits for the program's end, reading the terminal meanwhile. Exit status, or
  /// 128 + n for death by signal n; -1 after `timeout` (the program still runs).
  int wait(std::chrono::milliseconds timeout);
  pid_t pid() const { return pid_; }
  /// Everything written to the terminal so far.
  const std::string& output() const { return output_; }

 private:
  void readFor(std::chrono::milliseconds slice);

  pid_t pid_ = -1;
  int master_ = -1;
  bool reaped_ = false;
  std::string output_;
};

}  // namespace orvane::testing
