#pragma once

#include <string>
#include <vector>

namespace orvane::testing {

/// Console output split into lines, each without its leading "[date time] " stamp.
std::vector<std::string> consoleLines(const std::string& text);
bool hasLine(const std::vector<std::string>& lines, const std::string& line);
/// The last line of a file ("" when it has none), for the newest outcome record.
std::string lastLineOf(const std::string& path);
/// The newest outcome record of `vm` in the (private) application log.
std::string lastRecordFor(const std::string& vm);

}  // namespace orvane::testing
