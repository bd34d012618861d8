#pragma once

#include <string>

namespace orvane::testing {

/// Puts this process (and the children it starts from now on) in a private mount
/// namespace with an empty tmpfs over /var/log/orvane, so tests read only their own
/// run logs and records and leave the host's logs alone. Idempotent. Returns an
/// empty string on success, else why it could not (then tests should skip).
std::string isolateLogDir();

inline constexpr const char* kTestAppLog = "/var/log/orvane/orvane-v2v.log";
inline constexpr const char* kTestRunLogDir = "/var/log/orvane/v2v";

}  // namespace orvane::testing
