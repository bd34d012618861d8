#include "support/private_log_dir.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace orvane::testing {

std::string isolateLogDir() {
  static std::string outcome = [] {
    if (unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + std::strerror(errno);
    // Without this the tmpfs would propagate back into the host's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return std::string("make-rprivate: ") + std::strerror(errno);
    }
    std::error_code ec;
    std::filesystem::create_directories("/var/log/orvane", ec);
    if (mount("tmpfs", "/var/log/orvane", "tmpfs", 0, "size=64m") != 0) {
      return std::string("mount tmpfs: ") + std::strerror(errno);
    }
    return std::string();
  }();
  return outcome;
}

}  // namespace orvane::testing
