#include "domain_xml_builder/storage_pools.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "conversion/errors.h"
#include "process/command_runner.h"
#include "text/text.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

std::set<std::string> nonEmptyLines(const std::string& text) {
  const std::vector<std::string> lines = nonBlankLines(text);
  return {lines.begin(), lines.end()};
}

/// A directory as one spelling: absolute, normalised, without a trailing slash.
std::string canonicalDir(const fs::path& dir) {
  std::string text = fs::absolute(dir).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

/// The directory a pool covers, "" when virsh cannot say.
std::string poolTarget(const std::string& pool) {
  const CommandResult xml = runCommand({"virsh", "pool-dumpxml", pool});
  if (!xml.ok()) return "";
  const std::size_t open = xml.stdoutText.find("<path>");
  if (open == std::string::npos) return "";
  const std::size_t start = open + 6;
  const std::size_t close = xml.stdoutText.find("</path>", start);
  if (close == std::string::npos) return "";
  const std::string_view path =
      trim(std::string_view(xml.stdoutText).substr(start, close - start));
  return path.empty() ? "" : canonicalDir(path);
}

std::string firstLine(const std::string& text) {
  const std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? "virsh gave no reason" : line;
}

}  // namespace

PoolChanges poolChanges(const PoolStates& before, const PoolStates& after) {
  PoolChanges changes;
  for (const auto* now : {&after.active, &after.inactive}) {
    for (const std::string& name : *now) {
      if (!before.active.count(name) && !before.inactive.count(name)) {
        changes.created.push_back(name);
      }
    }
  }
  std::sort(changes.created.begin(), changes.created.end());
  std::set_intersection(before.inactive.begin(), before.inactive.end(),
                        after.active.begin(), after.active.end(),
                        std::back_inserter(changes.started));
  return changes;
}

bool listPools(PoolStates& states, std::string& error) {
  const CommandResult active = runCommand({"virsh", "pool-list", "--name"});
  const CommandResult inactive =
      runCommand({"virsh", "pool-list", "--inactive", "--name"});
  for (const CommandResult* r : {&active, &inactive}) {
    if (!r->ok()) {
      error = "Could not list libvirt's storage pools: " + firstLine(r->stderrText);
      return false;
    }
  }
  states.active = nonEmptyLines(active.stdoutText);
  states.inactive = nonEmptyLines(inactive.stdoutText);
  return true;
}

std::string restorePools(const PoolChanges& changes, const PoolStates& after,
                         const std::set<std::string>& imageDirs) {
  std::string failures;
  auto fail = [&failures](const std::string& what, const CommandResult& r) {
    failures += what + ": " + firstLine(r.stderrText) + "\n";
  };
  // Only a pool of the images' own directories can be virt-install's doing; a pool that
  // anyone else made meanwhile elsewhere is not ours to remove.
  for (const std::string& pool : changes.created) {
    const std::string dir = poolTarget(pool);
    if (!imageDirs.count(dir)) continue;
    if (after.active.count(pool)) {
      const CommandResult stopped = runCommand({"virsh", "pool-destroy", pool});
      if (!stopped.ok()) {
        fail("Could not stop storage pool '" + pool + "' that virt-install made for " +
                 dir,
             stopped);
        continue;
      }
    }
    // pool-undefine forgets the pool and its autostart mark; the directory and every
    // file in it stay (that would be pool-delete).
    const CommandResult undefined = runCommand({"virsh", "pool-undefine", pool});
    if (!undefined.ok()) {
      fail("Could not undefine storage pool '" + pool + "' that virt-install made for " +
               dir,
           undefined);
    }
  }
  for (const std::string& pool : changes.started) {
    const std::string dir = poolTarget(pool);
    if (!imageDirs.count(dir)) continue;
    const CommandResult stopped = runCommand({"virsh", "pool-destroy", pool});
    if (!stopped.ok()) {
      fail("Could not stop storage pool '" + pool +
               "' again after virt-install started it",
           stopped);
    }
  }
  return failures;
}

std::set<std::string> imageDirectories(const std::vector<std::string>& imagePaths) {
  std::set<std::string> dirs;
  for (const std::string& image : imagePaths) {
    dirs.insert(canonicalDir(fs::absolute(image).lexically_normal().parent_path()));
  }
  return dirs;
}

HeldSignals::HeldSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (int signo : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&held, signo);
  sigprocmask(SIG_BLOCK, &held, &saved_);
}

HeldSignals::~HeldSignals() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }

HostLock::HostLock(const std::string& path) {
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw V2vError("Could not open the lock file " + path + ": " + std::strerror(errno));
  }
  int r;
  do {
    r = ::flock(fd_, LOCK_EX);
  } while (r == -1 && errno == EINTR);
  if (r == -1) {
    const int saved = errno;
    ::close(fd_);
    throw V2vError("Could not lock " + path + ": " + std::strerror(saved));
  }
}

// Closing the descriptor releases the lock.
HostLock::~HostLock() { ::close(fd_); }

}  // namespace orvane
