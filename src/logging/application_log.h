#pragma once

#include <string>

namespace orvane {

inline constexpr const char* kApplicationLogDir = "/var/log/orvane";
inline constexpr const char* kApplicationLogPath = "/var/log/orvane/orvane-v2v.log";

/// Appends `line` and a newline to the application log shared by all runs. Never
/// throws for I/O failures: it prints one warning to stderr and returns.
void appendApplicationLog(const std::string& line);

/// The same with the directory and file named by the caller, so that the fallback
/// warnings can be exercised without touching the host's log.
void appendApplicationLogAt(const std::string& dir, const std::string& file,
                            const std::string& line);

}  // namespace orvane
