#pragma once

// What a VMDK descriptor says about where a disk's data lives, read the way
// qemu-img reads it, so that the files it would open can be checked first.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

/// The createType and the extent file names of one descriptor.
struct DescriptorInfo {
  std::string createType;  ///< as written, "" when absent
  std::vector<std::string>
      extents;  ///< quoted file names of the extent lines, as written
};

/// Reads descriptor text up to its first NUL byte (where qemu-img stops too). An
/// extent line is any line whose first word is an access mode (RW, RDONLY,
/// NOACCESS, any case) and that quotes a file name: more lines than qemu-img
/// follows, never fewer.
DescriptorInfo parseDescriptor(std::string_view text);

/// createType values whose data is a device of the VMware host, not a file.
bool isRawDeviceCreateType(std::string_view createType);

/// The fields of a sparse or stream-optimized extent's header ("KDMV") that
/// locate its embedded descriptor; offsets and sizes in 512-byte sectors.
struct SparseHeader {
  std::uint64_t capacity = 0;
  std::uint64_t descriptorOffset = 0;
  std::uint64_t descriptorSize = 0;
};

/// The header when `head` begins with the sparse magic; nullopt otherwise.
std::optional<SparseHeader> sparseHeader(std::string_view head);

/// True when `head` begins with the magic of the older sparse format ("COWD"),
/// which has no descriptor.
bool isLegacySparse(std::string_view head);

/// Opens a file for reading only when it is a regular file after following
/// symbolic links, and never blocks doing so (a FIFO or a device is refused
/// before it is opened). Returns the descriptor, or -1 with errno set (ENXIO
/// for a file that is not regular).
int openRegularFile(const std::string& path);

/// Up to `max` bytes of `fd` from `offset`: fewer only at the end of the file or
/// on a read error.
std::string readAt(int fd, std::uint64_t offset, std::size_t max);

}  // namespace orvane
