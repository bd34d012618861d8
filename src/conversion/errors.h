#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace orvane {

enum ExitCode : int {
  kExitSuccess = 0,
  kExitFailure = 1,
  kExitBootNotGuaranteed = 2,
};

/// A pipeline failure. `stage` names the step it arose in (may be empty);
/// `alreadyReported` tells the driver the user has already been told.
class V2vError : public std::runtime_error {
 public:
  V2vError(const std::string& message, std::string stage = "",
           bool alreadyReported = false)
      : std::runtime_error(message),
        stage_(std::move(stage)),
        alreadyReported_(alreadyReported) {}
  const std::string& stage() const { return stage_; }
  bool alreadyReported() const { return alreadyReported_; }

 private:
  std::string stage_;
  bool alreadyReported_;
};

/// The run must end with kExitBootNotGuaranteed: refusing beats shipping a dud.
class BootNotGuaranteedError : public V2vError {
 public:
  using V2vError::V2vError;
};

/// A termination signal is pending; the run ends with 128 + signo, no rollback.
class V2vInterrupted : public std::exception {
 public:
  explicit V2vInterrupted(int signo) : signo_(signo) {}
  const char* what() const noexcept override { return "interrupted by signal"; }
  int signo() const { return signo_; }

 private:
  int signo_;
};

}  // namespace orvane
