#pragma once

#include <string>
#include <utility>
#include <vector>

#include "domain_xml_builder/domain_xml_builder.h"

namespace orvane {

/// The `virt-install ... --import --print-xml` command line for `spec`.
std::vector<std::string> buildVirtInstallArgv(const DomainSpec& spec);

/// The file whose lock every run holds while virt-install may touch storage pools.
inline constexpr const char* kPoolLockPath = "/run/lock/orvane-v2v-pools.lock";

/// Has `virt-install` print the domain XML. Leaves libvirt's storage pools as it found
/// them: a pool virt-install makes or starts for an image's directory is put back.
class VirtInstallDomainXmlBuilder : public DomainXmlBuilder {
 public:
  explicit VirtInstallDomainXmlBuilder(std::string lockPath = kPoolLockPath)
      : lockPath_(std::move(lockPath)) {}
  std::string buildDomainXml(const DomainSpec& spec,
                             ProgressObserver* progress) override;

 private:
  std::string lockPath_;
};

}  // namespace orvane
