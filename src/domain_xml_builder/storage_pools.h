#pragma once

#include <signal.h>

#include <set>
#include <string>
#include <vector>

namespace orvane {

/// libvirt's storage pools at one moment, by name: the running and the stopped ones.
struct PoolStates {
  std::set<std::string> active;
  std::set<std::string> inactive;
};

/// What happened to the pools between two snapshots: pools that are new, and pools
/// that were stopped and now run. Each list is sorted by name.
struct PoolChanges {
  std::vector<std::string> created;
  std::vector<std::string> started;
};

PoolChanges poolChanges(const PoolStates& before, const PoolStates& after);

/// The pools as `virsh pool-list` reports them; false (with `error` set) when virsh
/// cannot tell.
bool listPools(PoolStates& states, std::string& error);

/// Puts back the pools of `changes` whose directory is one of `imageDirs`: a new one is
/// stopped and undefined (its directory and files stay), a started one is stopped
/// again. Returns "" or one line per pool it could not put back.
std::string restorePools(const PoolChanges& changes, const PoolStates& after,
                         const std::set<std::string>& imageDirs);

/// The directory of each image, as virt-install names it when it looks for a pool.
std::set<std::string> imageDirectories(const std::vector<std::string>& imagePaths);

/// Holds back SIGHUP, SIGINT and SIGTERM for the object's lifetime, for this process and
/// the commands it starts meanwhile; a signal sent meanwhile arrives when it ends.
class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t saved_;
};

/// An exclusive lock on a file, held for the object's lifetime. Every run takes the
/// same file, so the lock is host-wide.
class HostLock {
 public:
  /// Waits for the lock; throws V2vError naming the file when it cannot be taken.
  explicit HostLock(const std::string& path);
  ~HostLock();
  HostLock(const HostLock&) = delete;
  HostLock& operator=(const HostLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace orvane
