#pragma once

#include <string>
#include <vector>

namespace orvane {

/// What a .vmx file says about the VM. Numbers stay text; the ingest step checks them.
struct VmxData {
  std::string displayName;
  std::string numVcpus = "1";
  std::string memSize;
  std::string guestOs;            ///< lower-cased
  std::string firmware = "bios";  ///< lower-cased
  std::vector<std::string> macAddresses;
  std::vector<std::string> vmdkFiles;  ///< full paths, in bus order
  std::vector<std::string> snapDisks;  ///< file names of disks that have a parent
  bool hasVtpm = false;
  bool hasPassthrough = false;
  bool hasSerial = false;
};

/// Reads `vmxPath`; relative disk names are completed with `vmFolder`. Throws
/// V2vError when the file cannot be opened.
VmxData parseVmx(const std::string& vmxPath, const std::string& vmFolder);

/// True when the VMDK descriptor names a parent. Reads at most 64 KiB; an
/// unreadable file yields false.
bool vmdkHasParent(const std::string& vmdkPath);

}  // namespace orvane
