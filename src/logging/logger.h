#pragma once

#include <string>

namespace orvane {

/// Console output with timestamps and level prefixes; every shown line is also
/// appended to the run log once a run-log path is set. Holds no open file.
class Logger {
 public:
  void setVerbose(bool verbose) { verbose_ = verbose; }
  bool verbose() const { return verbose_; }
  /// An empty path turns run-log writing off.
  void setRunLogPath(const std::string& path) { runLogPath_ = path; }
  const std::string& runLogPath() const { return runLogPath_; }

  void info(const std::string& message);   ///< stdout, "[ts] msg"
  void warn(const std::string& message);   ///< stderr, "[ts] WARN:  msg"
  void error(const std::string& message);  ///< stderr, "[ts] ERROR: msg"
  void trace(const std::string& message);  ///< stderr, "[ts]   msg", verbose only
  void emit(const std::string& message);   ///< stdout, no timestamp

  /// Appends `line` and a newline to the run log; silent when it cannot.
  void writeRunLog(const std::string& line);

 private:
  bool verbose_ = false;
  std::string runLogPath_;
};

}  // namespace orvane
