#include "fakes/fake_adapters.h"

#include <fstream>

#include "conversion/errors.h"
#include "progress/progress_observer.h"

namespace orvane::testing {

bool FakeLibvirtBackend::isReachable() {
  calls.push_back("isReachable");
  return reachable;
}

bool FakeLibvirtBackend::networkDefined(const std::string& name) {
  calls.push_back("networkDefined " + name);
  return networkIsDefined;
}

bool FakeLibvirtBackend::networkActive(const std::string& name) {
  calls.push_back("networkActive " + name);
  return networkIsActive;
}

std::optional<std::string> FakeLibvirtBackend::defaultPoolPath() {
  calls.push_back("defaultPoolPath");
  return poolPath;
}

bool FakeLibvirtBackend::domainExists(const std::string& name) {
  calls.push_back("domainExists " + name);
  return domains.count(name) > 0;
}

std::vector<std::string> FakeLibvirtBackend::listDomains() {
  calls.push_back("listDomains");
  std::vector<std::string> names;
  for (const auto& entry : domains) names.push_back(entry.first);
  return names;
}

std::string FakeLibvirtBackend::dumpDomainXml(const std::string& name) {
  calls.push_back("dumpDomainXml " + name);
  auto it = domains.find(name);
  return it == domains.end() ? "" : it->second;
}

std::vector<std::pair<std::string, std::string>> FakeLibvirtBackend::dumpAllDomainXml() {
  calls.push_back("dumpAllDomainXml");
  return {domains.begin(), domains.end()};
}

void FakeLibvirtBackend::defineDomain(const std::string& xml, ProgressObserver*) {
  calls.push_back("defineDomain");
  if (!defineError.empty()) throw V2vError(defineError);
  definedXml.push_back(xml);
}

void FakeLibvirtBackend::undefineDomain(const std::string& name) {
  calls.push_back("undefineDomain " + name);
  undefined.push_back(name);
}

bool FakeLibvirtBackend::refreshPool(const std::string& pool, ProgressObserver*) {
  calls.push_back("refreshPool " + pool);
  if (onRefresh) onRefresh();
  return refreshResult;
}

std::string FakeDomainXmlBuilder::buildDomainXml(const DomainSpec& spec, ProgressObserver*) {
  specs.push_back(spec);
  if (!error.empty()) throw V2vError(error);
  return "<domain><name>" + spec.vmName + "</name></domain>";
}

BootFixResult FakeBootFixer::ensureEfiFallback(const std::vector<std::string>& disks,
                                               ProgressObserver*,
                                               const volatile std::sig_atomic_t*) {
  calls.push_back(disks);
  if (during) during();
  return result;
}

BootFixPrediction FakeBootFixer::predictEfiFallback(const std::vector<std::string>& disks,
                                                ProgressObserver*,
                                                const volatile std::sig_atomic_t*) {
  predictCalls.push_back(disks);
  if (during) during();
  return prediction;
}

CommandResult FakeDiskConverter::convert(const std::string& source, const std::string& target,
                                         ProgressObserver* progress) {
  int call = static_cast<int>(calls.size());
  calls.emplace_back(source, target);
  if (during) during(call);
  if (call == failAtCall) return failure;
  std::ofstream(target, std::ios::binary) << "QFI\xfb";
  if (progress != nullptr) progress->onOutput("    (100.00/100%)\r");
  return CommandResult{0, "    (100.00/100%)\r", ""};
}

}  // namespace orvane::testing
