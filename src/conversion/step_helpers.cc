#include "conversion/step_helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>

#include "logging/logger.h"
#include "text/text.h"

namespace orvane {

bool commandExists(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return false;
  for (std::string_view dir : split(path, ':')) {
    // An empty element would mean the current directory to a shell; a root tool
    // must not pick up whatever lies in the directory it was started from.
    if (dir.empty()) continue;
    const std::string candidate = std::string(dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return true;
  }
  return false;
}

std::string stripTrailingSlash(std::string s) {
  if (s.size() >= 2 && s.back() == '/') s.pop_back();
  return s;
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
  for (std::string_view line : splitLines(text)) log.error(std::string(line));
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

}  // namespace orvane
