#pragma once

#include "libvirt_backend/libvirt_backend.h"

namespace orvane {

/// Answers each question by running `virsh`.
class VirshLibvirtBackend : public LibvirtBackend {
 public:
  bool isReachable() override;
  bool networkDefined(const std::string& name) override;
  bool networkActive(const std::string& name) override;
  std::optional<std::string> defaultPoolPath() override;
  bool domainExists(const std::string& name) override;
  std::vector<std::string> listDomains() override;
  std::string dumpDomainXml(const std::string& name) override;
  std::vector<std::pair<std::string, std::string>> dumpAllDomainXml() override;
  void defineDomain(const std::string& xml, ProgressObserver* progress) override;
  void undefineDomain(const std::string& name) override;
  bool refreshPool(const std::string& pool, ProgressObserver* progress) override;
};

/// The text between the first <path> and the </path> after it, trimmed; no value
/// when a tag is missing or nothing is left. Pure, so it can be tested on its own.
std::optional<std::string> extractPoolPath(const std::string& poolXml);

/// Each name with its XML from as few `virsh` processes as the kernel's argument
/// limit allows (one for hundreds of domains); `nonce` makes the separators unique.
/// A definition that virsh did not print completely is empty.
std::vector<std::pair<std::string, std::string>> dumpBatchXml(
    const std::vector<std::string>& names, const std::string& nonce);

}  // namespace orvane
