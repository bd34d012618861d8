#include "support/console_lines.h"

#include <algorithm>
#include <sstream>

#include "support/private_log_dir.h"
#include "support/temp_dir.h"

namespace orvane::testing {

namespace {

// "[YYYY-mm-dd HH:MM:SS] " checked by hand: <regex> draws false warnings from GCC 12
// in sanitizer builds.
bool startsWithStamp(const std::string& line) {
  static const std::string kShape = "[dddd-dd-dd dd:dd:dd] ";
  if (line.size() < kShape.size()) return false;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const char want = kShape[i];
    const char got = line[i];
    if (want == 'd' ? (got < '0' || got > '9') : got != want) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> consoleLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(startsWithStamp(line) ? line.substr(22) : line);
  }
  return lines;
}

bool hasLine(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string lastLineOf(const std::string& path) {
  std::istringstream in(readFile(path));
  std::string last;
  for (std::string line; std::getline(in, line);) last = line;
  return last;
}

std::string lastRecordFor(const std::string& vm) {
  std::istringstream in(readFile(kTestAppLog));
  std::string found;
  for (std::string line; std::getline(in, line);) {
    if (line.find(" vm=" + vm + " ") != std::string::npos) found = line;
  }
  return found;
}

}  // namespace orvane::testing
