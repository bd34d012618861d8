#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvane {

class ProgressObserver;

/// The VM to define.
struct DomainSpec {
  struct Disk {
    std::string path;  ///< absolute path of the qcow2 image
    std::string bus;   ///< "sata", "ide" or "virtio"
  };
  struct Nic {
    std::string model;  ///< "e1000" or "virtio"
    std::string mac;    ///< may be empty
  };
  std::string vmName;
  int vcpus = 0;
  std::int64_t memoryMb = 0;
  std::string osinfo;
  std::string clockOffset;
  bool uefi = false;
  std::vector<Disk> disks;  ///< in boot order
  std::vector<Nic> nics;
};

/// Turns a DomainSpec into libvirt domain XML. Abstract so it can be replaced in
/// tests; the real implementation is VirtInstallDomainXmlBuilder.
class DomainXmlBuilder {
 public:
  virtual ~DomainXmlBuilder() = default;
  /// Throws V2vError carrying the tool's error text on failure.
  virtual std::string buildDomainXml(const DomainSpec& spec,
                                     ProgressObserver* progress) = 0;
};

}  // namespace orvane
