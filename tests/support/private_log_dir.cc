#include "support/private_log_dir.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace orvane::testing {

std::string isolateLogDir() {
  static const std::string outcome = []() -> std::string {
    std::error_code ec;
    std::filesystem::create_directories("/var/log/orvane", ec);
    // Private first: else the tmpfs would propagate back into the host's namespace.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/log/orvane", "tmpfs", 0, "size=64m") != 0) {
      return std::strerror(errno);
    }
    return "";
  }();
  return outcome;
}

}  // namespace orvane::testing
