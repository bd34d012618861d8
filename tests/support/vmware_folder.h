#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace orvane::testing {

/// One virtual disk of a VMware VM folder. A constructor rather than an aggregate,
/// so `VmwareDiskSpec{"sata0:0"}` may leave the later fields at their defaults
/// without -Wmissing-field-initializers.
struct VmwareDiskSpec {
  VmwareDiskSpec(std::string key = "scsi0:0", std::string name = "",
                 std::uint64_t size = 16ULL << 20, std::string format = "monolithicSparse",
                 std::string raw = "")
      : controllerKey(std::move(key)),
        fileName(std::move(name)),
        sizeBytes(size),
        subformat(std::move(format)),
        rawImage(std::move(raw)) {}

  std::string controllerKey;  ///< "scsi0:0", "sata0:1", "ide0:0", "nvme0:0"
  std::string fileName;       ///< empty: "<displayName>.vmdk", "<displayName>_1.vmdk"...
  std::uint64_t sizeBytes;    ///< for a new blank disk; ignored with rawImage
  std::string subformat;      ///< qemu-img's vmdk subformat, e.g. "monolithicFlat"
  std::string rawImage;       ///< when set, the disk is this raw image converted to VMDK
};

/// What to put in the folder; the defaults describe a small one-disk Linux BIOS VM.
struct VmwareFolderSpec {
  std::string displayName = "orvane-test-vm";
  std::string guestOs = "ubuntu-64";
  std::string firmware;  ///< "" for BIOS (no firmware line), or "efi"
  int numvcpus = 1;
  int memsize = 512;     ///< MB
  std::vector<std::string> nicMacs = {"00:0c:29:4f:8e:35"};
  std::string nicVirtualDev = "e1000";
  std::vector<VmwareDiskSpec> disks = {VmwareDiskSpec{}};
  std::vector<std::string> extraLines;  ///< appended verbatim, one per line
  std::string folderName;               ///< empty: displayName
  std::string vmxFileName;              ///< empty: displayName + ".vmx"
};

/// The .vmx text for `spec` as Workstation/ESXi write it (`key = "value"` lines).
/// Disks whose fileName is empty get the default names described above.
std::string vmxText(const VmwareFolderSpec& spec);

/// The file name of disk `index` of `spec`, applying the default naming.
std::string vmwareDiskFileName(const VmwareFolderSpec& spec, std::size_t index);

/// A VMware VM folder made on disk from a spec, with its disks created by
/// qemu-img; deleted with everything in it on destruction. Throws
/// std::runtime_error naming the command and its output when a tool fails.
class VmwareFolder {
 public:
  explicit VmwareFolder(const VmwareFolderSpec& spec);
  const std::string& path() const { return path_; }
  const std::string& vmxPath() const { return vmxPath_; }
  /// Full paths of every file in the folder after creation, sorted.
  const std::vector<std::string>& files() const { return files_; }
  /// Full paths of the disks' descriptor (or monolithic) files, in the order the folder spec lists them.
  const std::vector<std::string>& diskPaths() const { return diskPaths_; }

 private:
  TempDir owner_;
  std::string path_;
  std::string vmxPath_;
  std::vector<std::string> files_;
  std::vector<std::string> diskPaths_;
};

/// What a file looked like at one moment: enough to tell any change.
struct FileState {
  std::uintmax_t size = 0;
  std::int64_t mtimeNs = 0;
  std::string sha256;
  bool operator==(const FileState&) const = default;
};

/// Every regular file under a folder (recursively), keyed by path relative to it.
using FolderSnapshot = std::map<std::string, FileState>;

/// Records size, modification time and sha256 of every file under `dir`.
/// Throws std::runtime_error when the folder cannot be read or hashed.
FolderSnapshot snapshotFolder(const std::string& dir);

/// One line per added, removed or changed file ("changed: a.vmdk (sha256, mtime)");
/// empty when the snapshots are equal.
std::string describeDifferences(const FolderSnapshot& before, const FolderSnapshot& after);

}  // namespace orvane::testing
