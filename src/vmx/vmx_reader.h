#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

/// What a .vmx file says about the VM. Numbers stay text; the ingest step checks them.
struct VmxData {
  std::string displayName;
  std::string numVcpus = "1";
  std::string memSize;
  std::string guestOs;            ///< lower-cased
  std::string firmware = "bios";  ///< lower-cased
  /// One MAC per NIC that is not switched off, in file order: the static address
  /// when the NIC has one, else the generated one ("" when neither is set).
  std::vector<std::string> macAddresses;
  /// Full paths, boot order first: the disks bios.hddOrder names, then bus order.
  std::vector<std::string> vmdkFiles;
  std::vector<std::string> diskDevices;  ///< "scsi0:0"... of each vmdkFiles entry
  bool hddOrderApplied = false;          ///< bios.hddOrder named one of the disks
  std::vector<std::string> snapDisks;    ///< file names of disks that have a parent
  bool hasVtpm = false;
  bool hasPassthrough = false;
  bool hasSerial = false;
  bool encrypted = false;  ///< VMware encrypted the VM: its settings and disks are sealed

  bool operator==(const VmxData&) const = default;
};

/// Reads `vmxPath`; relative disk names are completed with `vmFolder`. Throws
/// V2vError when the file cannot be opened or read.
VmxData parseVmx(const std::string& vmxPath, const std::string& vmFolder);

/// How much of a disk descriptor the parent scan reads: enough for any text
/// descriptor, and a multi-gigabyte extent is never read whole.
inline constexpr std::size_t kDescriptorScanBytes = 64 * 1024;

/// parseVmx without the file read: `text` is the whole .vmx. Still opens each
/// listed disk (through vmdkHasParent) to find snapshot children.
VmxData parseVmxText(const std::string& text, const std::string& vmFolder);

/// True when the VMDK descriptor names a parent. Reads at most 64 KiB; an
/// unreadable file yields false.
bool vmdkHasParent(const std::string& vmdkPath);

/// The parent scan of vmdkHasParent on descriptor text; only the first 64 KiB of
/// `descriptorHead` is looked at.
bool descriptorHasParent(std::string_view descriptorHead);

}  // namespace orvane
