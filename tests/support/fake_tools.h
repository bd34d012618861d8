#pragma once

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace orvane::testing {

/// A directory of fake executables put first on PATH for the object's lifetime. A
/// recording fake appends its argv (one argument per line) and its stdin to numbered
/// files in the directory, so tests can assert on exactly what was run.
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
  /// The contents of name.<kind>.0, .1, ... while they exist.
  std::vector<std::string> recorded(const std::string& name, const std::string& kind) const;
  TempDir dir_;
  std::string savedPath_;
};

}  // namespace orvane::testing
