#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvane {

class ProgressObserver;

/// Everything the program asks of libvirt. Abstract so it can be replaced in tests;
/// the real implementation is VirshLibvirtBackend. Queries never throw: a failed
/// call answers false, "" or an empty list.
class LibvirtBackend {
 public:
  virtual ~LibvirtBackend() = default;
  virtual bool isReachable() = 0;
  virtual bool networkDefined(const std::string& name) = 0;
  virtual bool networkActive(const std::string& name) = 0;
  /// No value when libvirt has no usable `default` pool.
  virtual std::optional<std::string> defaultPoolPath() = 0;
  virtual bool domainExists(const std::string& name) = 0;
  virtual std::vector<std::string> listDomains() = 0;
  virtual std::string dumpDomainXml(const std::string& name) = 0;
  /// Every domain's name and XML, in listing order, read through one `virsh` rather
  /// than one per domain. A definition that could not be read is empty.
  virtual std::vector<std::pair<std::string, std::string>> dumpAllDomainXml() = 0;
  /// Throws V2vError carrying the tool's error text on failure.
  virtual void defineDomain(const std::string& xml, ProgressObserver* progress) = 0;
  /// Best effort; never reports failure.
  virtual void undefineDomain(const std::string& name) = 0;
  virtual bool refreshPool(const std::string& pool, ProgressObserver* progress) = 0;
};

}  // namespace orvane
