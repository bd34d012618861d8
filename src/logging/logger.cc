#include "logging/logger.h"

#include <fstream>
#include <iostream>

#include "text/text.h"

namespace orvane {
namespace {

// The prefixes after "]" are as wide for warnings as for errors, so that messages of
// both levels line up in a terminal and in the run log.
std::string stamped(const char* prefix, const std::string& message) {
  return "[" + strftimeNow("%Y-%m-%d %H:%M:%S") + "]" + prefix + message;
}

}  // namespace

void Logger::info(const std::string& message) {
  const std::string line = stamped(" ", message);
  std::cout << line << '\n';
  writeRunLog(line);
}

void Logger::warn(const std::string& message) {
  const std::string line = stamped(" WARN:  ", message);
  std::cerr << line << '\n';
  writeRunLog(line);
}

void Logger::error(const std::string& message) {
  const std::string line = stamped(" ERROR: ", message);
  std::cerr << line << '\n';
  writeRunLog(line);
}

void Logger::trace(const std::string& message) {
  // A hidden trace stays out of the run log too: only verbose runs record them.
  if (!verbose_) return;
  const std::string line = stamped("   ", message);
  std::cerr << line << '\n';
  writeRunLog(line);
}

void Logger::emit(const std::string& message) {
  std::cout << message << '\n';
  writeRunLog(message);
}

void Logger::writeRunLog(const std::string& line) {
  if (runLogPath_.empty()) return;
  // Opened per line so that no descriptor outlives a call and a renamed run log is
  // picked up by the next line; a run log we cannot open must not disturb the run.
  std::ofstream out(runLogPath_, std::ios::app);
  if (!out) return;
  out << line << '\n';
}

}  // namespace orvane
