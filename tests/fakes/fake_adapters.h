#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "boot_fixer/boot_fixer.h"
#include "disk_converter/disk_converter.h"
#include "domain_xml_builder/domain_xml_builder.h"
#include "libvirt_backend/libvirt_backend.h"

namespace orvane::testing {

// In-process stand-ins for the four host-tool adapters. Each records what it was
// asked, so tests assert on the record; each answer can be set by the test.

class FakeLibvirtBackend : public LibvirtBackend {
 public:
  bool reachable = true;
  bool networkIsDefined = true;
  bool networkIsActive = true;
  std::optional<std::string> poolPath;
  /// name -> domain XML; a domain exists when it is here.
  std::map<std::string, std::string> domains;
  std::string defineError;  ///< non-empty: defineDomain throws with this text
  bool refreshResult = true;
  std::function<void()> onRefresh;  ///< runs inside refreshPool (may throw)

  std::vector<std::string> calls;  ///< "listDomains", "dumpDomainXml <name>", ...
  std::vector<std::string> definedXml;
  std::vector<std::string> undefined;

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

class FakeDomainXmlBuilder : public DomainXmlBuilder {
 public:
  std::string error;  ///< non-empty: buildDomainXml throws with this text
  std::vector<DomainSpec> specs;
  std::string buildDomainXml(const DomainSpec& spec, ProgressObserver* progress) override;
};

class FakeBootFixer : public BootFixer {
 public:
  BootFixResult result{BootFixOutcome::kApplied, "added \\EFI\\BOOT\\BOOTX64.EFI from shimx64.efi"};
  std::vector<std::vector<std::string>> calls;
  /// What predictEfiFallback answers; it records its disks in `predictCalls`.
  BootFixPrediction prediction{
      {BootFixOutcome::kApplied, "fallback bootloader already present (left as-is)"}, ""};
  std::vector<std::vector<std::string>> predictCalls;
  /// Runs inside either call (a test may raise a signal there).
  std::function<void()> during;
  BootFixResult ensureEfiFallback(const std::vector<std::string>& disks, ProgressObserver* progress,
                                  const volatile std::sig_atomic_t* stopFlag) override;
  BootFixPrediction predictEfiFallback(const std::vector<std::string>& disks,
                                       ProgressObserver* progress,
                                       const volatile std::sig_atomic_t* stopFlag) override;
};

/// Writes a small file at the target, as qemu-img would, unless told to fail.
class FakeDiskConverter : public DiskConverter {
 public:
  int failAtCall = -1;  ///< 0-based call index that fails, -1 for none
  CommandResult failure{1, "", "qemu-img: error while writing\n"};
  std::function<void(int call)> during;  ///< runs inside each convert, before it returns
  std::vector<std::pair<std::string, std::string>> calls;  ///< (source, target)
  CommandResult convert(const std::string& source, const std::string& target,
                        ProgressObserver* progress) override;
};

}  // namespace orvane::testing
