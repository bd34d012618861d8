// The files behind each disk, checked before qemu-img opens any of them. A VM
// folder comes from elsewhere and this program runs as root: a descriptor that
// names /dev/sda or another VM's disk would otherwise have that copied into the
// new VM, and a FIFO named like a disk would hang the run.

#include "vmx/disk_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

/// qemu-img reads at most this much of an extent's name and opens what it read,
/// so a longer name would have it open a file other than the one checked here.
constexpr std::size_t kLongestExtentName = 511;

constexpr const char* kRereadRemedy =
    "Check that the disk's files are intact (copy them again from the datastore), "
    "then re-run.";

std::string typeName(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO (named pipe)";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISDIR(mode)) return "a directory";
  return "not a regular file";
}

class DiskChecker {
 public:
  DiskChecker(const NamedDisk& disk, std::vector<std::string>& problems)
      : disk_(disk), problems_(problems), inVmx_(disk.key + " in the .vmx") {}

  void check() {
    const int fd =
        openChecked(disk_.path, inVmx_, "copy it into the VM folder or correct the .vmx");
    if (fd < 0) return;
    const Descriptor descriptor = readDescriptor(fd);
    close(fd);
    if (!descriptor.complete) {
      problems_.push_back(diskLabel() +
                          " has a descriptor that does not end within its first " +
                          std::to_string(kDescriptorScanBytes / 1024) +
                          " KiB; VMware writes far smaller ones.\n" + kRereadRemedy);
      return;
    }
    const DescriptorInfo info = parseDescriptor(descriptor.text);
    if (isRawDeviceCreateType(info.createType)) {
      problems_.push_back(
          diskLabel() + " is a raw device mapping (createType \"" + info.createType +
          "\"): its data is a device of the VMware host, not a file in the VM folder.\n"
          "In VMware, migrate it to a virtual disk (or detach it and move its data "
          "separately), then re-run.");
      return;
    }
    const fs::path folder = fs::path(disk_.path).parent_path();
    for (const std::string& name : info.extents) {
      checkExtent(folder, name, !descriptor.selfContained);
    }
  }

 private:
  struct Descriptor {
    std::string text;
    bool complete = true;  ///< false: the text runs on past what may be read
    /// A sparse file with a capacity holds its own data: qemu-img opens none of
    /// the extents its embedded descriptor names, which still carry the name the
    /// file had when it was made (a renamed disk keeps its old one).
    bool selfContained = false;
  };

  std::string diskLabel() const { return "Disk " + disk_.path + " (" + inVmx_ + ")"; }

  /// The descriptor qemu-img would read: the file itself, or the text embedded in
  /// a sparse extent, up to its first NUL byte.
  static Descriptor readDescriptor(int fd) {
    struct stat st {};
    const std::uint64_t size =
        fstat(fd, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    std::string head = readAt(fd, 0, kDescriptorScanBytes);
    if (isLegacySparse(head)) return {};
    Descriptor descriptor;
    std::uint64_t start = 0;
    if (const std::optional<SparseHeader> header = sparseHeader(head)) {
      constexpr std::uint64_t kSector = 512;
      if (header->descriptorOffset == 0 || header->descriptorOffset > size / kSector) {
        return {};
      }
      start = header->descriptorOffset * kSector;
      head = readAt(fd, start, kDescriptorScanBytes);
      descriptor.selfContained = header->capacity != 0;
    }
    if (const std::size_t nul = head.find('\0'); nul != std::string::npos) {
      head.resize(nul);
    } else {
      descriptor.complete = start + head.size() >= size;
    }
    descriptor.text = std::move(head);
    return descriptor;
  }

  /// The opened file, or -1 with the problem recorded. `where` says what names
  /// the file; `remedyIfMissing` ends the one-line message for a missing file.
  int openChecked(const std::string& path, const std::string& where,
                  const std::string& remedyIfMissing) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
      if (errno == ENOENT || errno == ENOTDIR) {
        problems_.push_back("Disk file not found: " + path + " (" + where + "); " +
                            remedyIfMissing + ", then re-run.");
      } else {
        unreadable(path, where, errno);
      }
      return -1;
    }
    if (!S_ISREG(st.st_mode)) {
      problems_.push_back("Disk file is " + typeName(st.st_mode) +
                          ", not a regular file: " + path + " (" + where +
                          ").\nPut the real disk file in its place, then re-run.");
      return -1;
    }
    const int fd = openRegularFile(path);
    if (fd < 0) unreadable(path, where, errno);
    return fd;
  }

  void unreadable(const std::string& path, const std::string& where, int error) {
    problems_.push_back("Disk file cannot be read: " + path + " (" + where +
                        "): " + std::strerror(error) +
                        ".\nMake it readable by root, then re-run.");
  }

  void outside(const std::string& name, const std::string& why) {
    problems_.push_back(
        diskLabel() + " names an extent outside its folder: \"" + name + "\" " + why +
        ".\nA disk's extents must be files beside its descriptor; orvane-v2v reads "
        "no other file of this host. Put the extent beside its descriptor, name it "
        "there, then re-run.");
  }

  /// The name rules always hold; `mustExist` false lets a file that is absent go.
  void checkExtent(const fs::path& folder, const std::string& name, bool mustExist) {
    if (name.size() > kLongestExtentName) {
      problems_.push_back(diskLabel() + " names an extent longer than " +
                          std::to_string(kLongestExtentName) + " bytes: \"" +
                          name.substr(0, 60) + "...\".\n" + kRereadRemedy);
      return;
    }
    if (name.front() == '/') return outside(name, "is an absolute path");
    for (const fs::path& part : fs::path(name)) {
      if (part == "..") return outside(name, "climbs out through \"..\"");
    }
    const fs::path extent = folder / name;
    std::error_code existsError;
    if (!mustExist && !fs::exists(extent, existsError) && !existsError) return;
    // A path that cannot be resolved (a loop, a missing folder) is left to the
    // open below, which reports why.
    std::error_code folderError;
    std::error_code extentError;
    const fs::path realFolder = fs::canonical(folder, folderError);
    const fs::path realExtent = fs::weakly_canonical(extent, extentError);
    if (!folderError && !extentError && !within(realFolder, realExtent)) {
      return outside(name, "leads out through a symbolic link");
    }
    const int fd =
        openChecked(extent.string(), "an extent of " + disk_.path + ", " + inVmx_,
                    "copy it beside its descriptor");
    if (fd < 0) return;
    // An extent that holds a descriptor of its own (a sparse header of no
    // capacity) makes qemu-img follow that one too; VMware never writes one.
    const std::optional<SparseHeader> header = sparseHeader(readAt(fd, 0, 512));
    close(fd);
    if (header && header->capacity == 0 && header->descriptorOffset != 0) {
      problems_.push_back(diskLabel() +
                          " names an extent that is itself a descriptor: \"" + name +
                          "\".\n" + kRereadRemedy);
    }
  }

  static bool within(const fs::path& folder, const fs::path& path) {
    const std::string f = folder.string();
    const std::string p = path.string();
    if (f.empty()) return false;
    if (f == "/") return p.size() > 1 && p.front() == '/';
    return p.size() > f.size() + 1 && p.starts_with(f) &&
           p[f.size()] == '/';
  }

  const NamedDisk& disk_;
  std::vector<std::string>& problems_;
  const std::string inVmx_;
};

}  // namespace

std::vector<std::string> diskFileProblems(const std::vector<NamedDisk>& disks) {
  std::vector<std::string> problems;
  for (const NamedDisk& disk : disks) DiskChecker(disk, problems).check();
  return problems;
}

}  // namespace orvane
