#pragma once

#include <string>
#include <vector>

#include "domain_xml_builder/domain_xml_builder.h"

namespace orvane {

/// The `virt-install ... --import --print-xml` command line for `spec`.
std::vector<std::string> buildVirtInstallArgv(const DomainSpec& spec);

/// Has `virt-install` print the domain XML; creates nothing.
class VirtInstallDomainXmlBuilder : public DomainXmlBuilder {
 public:
  std::string buildDomainXml(const DomainSpec& spec,
                             ProgressObserver* progress) override;
};

}  // namespace orvane
