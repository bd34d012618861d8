#pragma once

#include <string>
#include <vector>

namespace orvane::testing {

/// The last line of a file ("" when it has none), for the newest outcome record.
std::string lastLineOf(const std::string& path);
void replaceAll(std::string& text, const std::string& from, const std::string& to);
/// `text` with every stretch shaped like `shape` ('d' for any digit) replaced by `mask`.
std::string maskShape(std::string text, const std::string& shape, const std::string& mask);
/// The rows of a tab-separated table: "#" lines skipped, "\n" and "\r" unescaped, and
/// a field "<count>*<text>" read as `text` repeated `count` times.
std::vector<std::vector<std::string>> readTable(const std::string& path);

}  // namespace orvane::testing
