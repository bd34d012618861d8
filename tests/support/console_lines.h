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
void replaceAll(std::string& text, const std::string& from, const std::string& to);
/// `text` with every stretch shaped like `shape` ('d' for any digit) replaced by `mask`.
std::string maskShape(std::string text, const std::string& shape, const std::string& mask);
/// The rows of a tab-separated table: "#" lines skipped, "\n" and "\r" unescaped, and
/// a field "<count>*<text>" read as `text` repeated `count` times.
std::vector<std::vector<std::string>> readTable(const std::string& path);

}  // namespace orvane::testing
