#include "logging/application_log.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace orvane {

void appendApplicationLog(const std::string& line) {
  appendApplicationLogAt(kApplicationLogDir, kApplicationLogPath, line);
}

void appendApplicationLogAt(const std::string& dir, const std::string& file,
                            const std::string& line) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::is_directory(fs::status(dir, ec))) {
    ec.clear();
    fs::create_directories(dir, ec);
    if (ec) {
      // Straight to stderr, bypassing the Logger: a problem with the shared log is
      // news for the console only and has no place in the run's own log.
      std::fprintf(stderr, "WARN: Could not create application log directory: %s\n",
                   dir.c_str());
      return;
    }
  }
  std::ofstream out(file, std::ios::app);
  if (!out) {
    std::fprintf(stderr, "WARN: Could not write to application log: %s\n", file.c_str());
    return;
  }
  out << line << '\n';
}

}  // namespace orvane
