#pragma once

#include <string>
#include <vector>

namespace orvane {

/// One disk as the .vmx names it.
struct NamedDisk {
  std::string path;  ///< full path, as the VMX reader completed it
  std::string key;   ///< the .vmx key that names it, e.g. "scsi0:1.fileName"
};

/// Checks, without converting or writing anything, every file qemu-img would open
/// for these disks: each disk file and each extent its descriptor (text or
/// embedded in a sparse extent) names must be a readable regular file, and each
/// extent must lie inside the folder of its descriptor. Returns one message per
/// problem, in the style of the run's blockers; empty when all is well. Never
/// blocks on a special file and reads at most a bounded head of each file.
std::vector<std::string> diskFileProblems(const std::vector<NamedDisk>& disks);

}  // namespace orvane
