#include "conversion/step_helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <regex>

#include "logging/logger.h"

namespace orvane {

bool commandExists(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return false;
  std::string all = path;
  std::size_t start = 0;
  while (start <= all.size()) {
    std::size_t end = all.find(':', start);
    if (end == std::string::npos) end = all.size();
    // An empty element would mean the current directory to a shell; a root tool
    // must not pick up whatever lies in the directory it was started from.
    if (end > start) {
      std::string candidate = all.substr(start, end - start) + "/" + name;
      if (access(candidate.c_str(), X_OK) == 0) return true;
    }
    start = end + 1;
  }
  return false;
}

std::string stripTrailingSlash(std::string s) {
  if (s.size() >= 2 && s.back() == '/') s.pop_back();
  return s;
}

bool endsWithLower(const std::string& s, const std::string& suffix) {
  if (suffix.size() > s.size()) return false;
  std::string tail = s.substr(s.size() - suffix.size());
  for (char& c : tail) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return tail == suffix;
}

std::string joinSpace(const std::vector<std::string>& words) {
  std::string out;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) out += ' ';
    out += words[i];
  }
  return out;
}

void errorLines(Logger& log, const std::string& text) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    log.error(text.substr(start, end - start));
    start = end + 1;
  }
}

namespace {

// "" when `path` (opened with `flags`) reached stable storage, else the reason.
std::string fsyncPath(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd == -1) return "cannot open " + path + ": " + std::strerror(errno);
  std::string failure;
  if (::fsync(fd) != 0) failure = "cannot flush " + path + ": " + std::strerror(errno);
  ::close(fd);
  return failure;
}

}  // namespace

std::string flushToDisk(const std::string& path) {
  std::string failure = fsyncPath(path, O_RDONLY);
  if (!failure.empty()) return failure;
  const std::filesystem::path dir = std::filesystem::path(path).parent_path();
  return fsyncPath(dir.empty() ? std::string(".") : dir.string(), O_RDONLY | O_DIRECTORY);
}

std::string withoutProgress(const std::string& text) {
  static const std::regex kProgress(R"([ \t]*\(\d+(\.\d+)?/100%\)[ \t\r]*)");
  std::string out = std::regex_replace(text, kProgress, "");
  out.erase(std::remove(out.begin(), out.end(), '\r'), out.end());
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  std::size_t start = 0;
  while (start < out.size() && (out[start] == '\n' || out[start] == ' ')) ++start;
  return out.substr(start);
}

std::string existingTargetMessage(const std::string& path) {
  return "Target image already exists (it will not be overwritten): " + path +
         "\nRemove or rename it, or choose a different --output-dir / --vm-name, then "
         "re-run.";
}

std::string strftimeNow(const char* format) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buf[64];
  // The formats are the run's own constants, never outside input.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::size_t n = std::strftime(buf, sizeof(buf), format, &local);
#pragma GCC diagnostic pop
  return std::string(buf, n);
}

}  // namespace orvane
