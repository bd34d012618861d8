#pragma once
// What a test sets up on this host for itself: a fresh folder, files, fake executables
// first on PATH, and a private /var/log/orvane.
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "text/text.h"

namespace orvane::testing {

/// Writes `content` to `path`, creating or truncating it; `mode` as for chmod.
inline void writeFile(const std::string& path, const std::string& content, int mode = 0644) {
  if (!(std::ofstream(path, std::ios::binary) << content)) throw std::runtime_error(path);
  chmod(path.c_str(), static_cast<mode_t>(mode));
}

/// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "orvane-test") : path_("/tmp/" + prefix + "-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A directory of fake executables put first on PATH for the object's lifetime.
class FakeTools {
 public:
  FakeTools() : savedPath_(std::getenv("PATH")) { setenv("PATH", (dir() + ":" + savedPath_).c_str(), 1); }
  ~FakeTools() { setenv("PATH", savedPath_.c_str(), 1); }
  FakeTools(const FakeTools&) = delete;
  FakeTools& operator=(const FakeTools&) = delete;

  /// Installs `name` with `body` (a /bin/sh script body, without the #! line).
  void add(const std::string& name, const std::string& body) {
    writeFile(dir_.file(name), "#!/bin/sh\n" + body + "\n", 0755);
  }
  /// Installs `name` that writes its argv, one argument a line, to a numbered file and
  /// then runs `body`. Like a real tool it reads its input from a pipe or a file before
  /// it ends, so a writer never fails; from a terminal it would block, so not there.
  void addRecording(const std::string& name, const std::string& body = "exit 0") {
    const std::string rec = "'" + dir_.file(name) + "'";
    add(name, "n=$(ls " + rec + ".argv.* 2>/dev/null | wc -l)\n"
              "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > " + rec + ".argv.$n\n"
              "if [ -p /dev/stdin ] || [ -f /dev/stdin ]; then cat >/dev/null; fi\n" + body);
  }
  /// Each call's argv (without argv[0]) of a recording fake, in call order.
  std::vector<std::vector<std::string>> calls(const std::string& name) const {
    std::vector<std::vector<std::string>> out;
    for (std::string f; std::filesystem::exists(f = dir_.file(name + ".argv." + std::to_string(out.size())));) {
      const std::string text = readFile(f);
      out.emplace_back();
      for (std::string_view line : splitLines(text)) out.back().emplace_back(line);
    }
    return out;
  }
  const std::string& dir() const { return dir_.path(); }

 private:
  TempDir dir_{"orvane-fake-tools"};
  std::string savedPath_;
};

/// What has come from `fd` (a terminal or a pipe) until nothing more came for `quietMs`,
/// or until its other end is gone; the tty layer hands bytes over asynchronously.
inline std::string take(int fd, int quietMs) {
  std::string bytes;
  char buffer[4096];
  for (pollfd entry{fd, POLLIN, 0}; ::poll(&entry, 1, quietMs) == 1;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  return bytes;
}

inline constexpr const char* kTestAppLog = "/var/log/orvane/orvane-v2v.log";
inline constexpr const char* kTestRunLogDir = "/var/log/orvane/v2v";

/// Puts this process (and the children it starts from now on) in a private mount
/// namespace with an empty tmpfs over /var/log/orvane, so tests read only their own
/// run logs and records and leave the host's logs alone. "" once that is done, else
/// why it could not be (then the test should skip).
inline std::string isolateLogDir() {
  static const std::string why = [] {
    std::error_code ec;
    std::filesystem::create_directories("/var/log/orvane", ec);
    // Private first: else the tmpfs would propagate back into the host's namespace.
    const bool done = unshare(CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", "/var/log/orvane", "tmpfs", 0, "size=64m") == 0;
    return done ? std::string() : std::string(std::strerror(errno));
  }();
  return why;
}

}  // namespace orvane::testing
