#pragma once

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace orvane::testing {

/// A directory of fake executables put first on PATH for the object's lifetime.
/// Each fake is a shell script; `recordingScript` makes one that appends its argv
/// (one argument per line, then a "--" line) and its stdin to files in the directory,
/// so tests can assert on exactly what the program under test ran.
class FakeTools {
 public:
  FakeTools();
  ~FakeTools();
  FakeTools(const FakeTools&) = delete;
  FakeTools& operator=(const FakeTools&) = delete;

  /// Installs `name` with `body` (a /bin/sh script body, without the #! line).
  void add(const std::string& name, const std::string& body);
  /// Installs `name` that records its calls and then runs `body`.
  void addRecording(const std::string& name, const std::string& body = "exit 0");
  /// Each call's argv (without argv[0]) of a recording fake, in call order.
  std::vector<std::vector<std::string>> calls(const std::string& name) const;
  /// Each call's stdin of a recording fake, in call order.
  std::vector<std::string> stdins(const std::string& name) const;
  const std::string& dir() const { return dir_.path(); }

 private:
  TempDir dir_;
  std::string savedPath_;
  bool hadPath_ = false;
};

}  // namespace orvane::testing
