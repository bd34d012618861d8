#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace orvane::testing {

/// One GPT partition of a test disk: its file system and the files put on it.
struct TestPartition {
  std::string fsType;  ///< "vfat" or "ext4"
  /// Absolute path and content; content is plain ASCII without quotes or backslashes.
  std::vector<std::pair<std::string, std::string>> files;
};

/// A 64 MiB qcow2 image to create at `path`, partitioned into equal parts.
struct TestDisk {
  std::string path;
  std::vector<TestPartition> partitions;  ///< at least one, at most 8
};

/// Creates every disk and fills them all in ONE guestfish launch: each launch costs
/// tens of seconds without KVM. Returns "" on success, otherwise what went wrong.
std::string buildTestDisks(const std::vector<TestDisk>& disks);

/// A guestfish command to run on partition `partition` (1-based) of disk `disk`.
struct DiskQuery {
  std::size_t disk;
  int partition;
  std::string command;  ///< such as "checksum sha256 /EFI/BOOT/BOOTX64.EFI"
};

/// Runs every query in one read-only launch over `images` and returns each one's
/// trimmed output, in query order; a query that failed (a missing file, say)
/// answers "". The launch's own failure answers an empty vector.
std::vector<std::string> queryDisks(const std::vector<std::string>& images,
                                    const std::vector<DiskQuery>& queries);

}  // namespace orvane::testing
