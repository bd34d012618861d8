#pragma once
// The four adapters as fakes inside the test's own process, so that a whole run of the
// conversion can be played against a host that answers from a table.
#include <csignal>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "boot_fixer/boot_fixer.h"
#include "cli/options.h"
#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "disk_converter/disk_converter.h"
#include "domain_xml_builder/domain_xml_builder.h"
#include "libvirt_backend/libvirt_backend.h"
#include "support/tables.h"

namespace orvane::testing {

/// The host the four fake adapters share. Each call is logged as one line, the two
/// folders written {src} and {out}, and answered by the `says` entry of that line
/// (equal keys answer in turn): "no", "<exit>|<stdout>|<stderr>" from qemu-img,
/// "<outcome>|<note>|<copied from>" from guestfish, "<name> <xml>|..." from dumpxml,
/// "throw <why>" or "fail <tool error>". "raise <line>" raises a signal at that call;
/// "taken" names a file another run makes in the output folder after the MAC check.
struct FakeHost {
  std::multimap<std::string, std::string> says;
  std::vector<std::string> calls;
  std::string src, out;
  std::string get(const std::string& key) const {
    auto it = says.find(key);
    return it == says.end() ? "" : it->second;
  }
};

/// The one host all fakes use; a test sets it before each run.
inline FakeHost fakeHost;

namespace fake {

/// Logs the call and returns the '|'-separated fields of its answer (at least three).
inline std::vector<std::string> ask(std::string call, const std::vector<std::string>& items = {}) {
  FakeHost& h = fakeHost;
  for (const std::string& item : items) call += " " + item;
  call = replaced(replaced(call, h.src, "{src}"), h.out, "{out}");
  h.calls.push_back(call);
  std::string answer;
  if (auto it = h.says.find(call); it != h.says.end()) answer = it->second, h.says.erase(it);
  if (const std::string signo = h.get("raise " + call); !signo.empty()) std::raise(std::stoi(signo));
  if (answer.starts_with("throw ")) throw std::runtime_error(answer.substr(6));
  if (answer.starts_with("fail ")) throw V2vError(answer.substr(5));
  std::vector<std::string> fields;
  for (std::string_view field : split(answer, '|')) fields.emplace_back(field);
  fields.resize(std::max<std::size_t>(fields.size(), 3));
  return fields;
}

inline bool yes(const std::string& call) { return ask(call)[0] != "no"; }
inline int number(const std::string& text) { return text.empty() ? 0 : std::stoi(text); }

struct Libvirt : LibvirtBackend {
  bool isReachable() override { return yes("virsh version"); }
  bool networkDefined(const std::string& n) override { return yes("virsh net-info " + n); }
  bool networkActive(const std::string& n) override { return yes("virsh net-active " + n); }
  std::optional<std::string> defaultPoolPath() override {
    return yes("virsh pool-path") ? std::optional(fakeHost.out) : std::nullopt;
  }
  bool domainExists(const std::string& n) override { return ask("virsh dominfo " + n)[0] == "yes"; }
  std::vector<std::string> listDomains() override { return {}; }
  std::string dumpDomainXml(const std::string&) override { return ""; }
  std::vector<std::pair<std::string, std::string>> dumpAllDomainXml() override {
    std::vector<std::pair<std::string, std::string>> all;
    for (const std::string& domain : ask("virsh dumpxml --all")) {
      const std::size_t blank = std::min(domain.find(' '), domain.size());
      all.emplace_back(domain.substr(0, blank), domain.substr(blank));
    }
    if (!fakeHost.get("taken").empty()) std::ofstream(fakeHost.out + "/" + fakeHost.get("taken")) << "theirs";
    return all;
  }
  void defineDomain(const std::string& xml, ProgressObserver*) override { ask("virsh define", {xml}); }
  void undefineDomain(const std::string& name) override { ask("virsh undefine", {name}); }
  bool refreshPool(const std::string& pool, ProgressObserver*) override {
    return yes("virsh pool-refresh " + pool);
  }
};

struct XmlBuilder : DomainXmlBuilder {
  std::string buildDomainXml(const DomainSpec& s, ProgressObserver*) override {
    std::vector<std::string> items = {s.vmName, std::to_string(s.vcpus), std::to_string(s.memoryMb),
                                      s.osinfo, s.clockOffset, s.uefi ? "uefi" : "bios"};
    for (const auto& d : s.disks) items.push_back(d.path + ":" + d.bus);
    for (const auto& n : s.nics) items.push_back(n.model + ":" + n.mac);
    ask("virt-install", items);
    return "<domain/>";
  }
};

struct Fixer : BootFixer {
  BootFixResult ensureEfiFallback(const std::vector<std::string>& disks, ProgressObserver*,
                                  const volatile std::sig_atomic_t*) override {
    const std::vector<std::string> f = ask("guestfish fix", disks);
    return {static_cast<BootFixOutcome>(number(f[0])), f[1]};
  }
  BootFixPrediction predictEfiFallback(const std::vector<std::string>& disks, ProgressObserver*,
                                       const volatile std::sig_atomic_t*) override {
    const std::vector<std::string> f = ask("guestfish predict", disks);
    return {{static_cast<BootFixOutcome>(number(f[0])), f[1]}, f[2]};
  }
};

struct Converter : DiskConverter {
  CommandResult convert(const std::string& source, const std::string& target,
                        ProgressObserver*) override {
    std::ofstream(target) << "QFI";  // what qemu-img has written when it fails, too
    const std::vector<std::string> f = ask("qemu-img convert", {source, target});
    return {number(f[0]), f[1], f[2]};
  }
};

}  // namespace fake

/// A conversion whose four adapters are fakes of fakeHost.
inline Conversion fakeConversion(Options options) {
  return Conversion(std::move(options), std::make_unique<fake::Libvirt>(), std::make_unique<fake::XmlBuilder>(),
                    std::make_unique<fake::Fixer>(), std::make_unique<fake::Converter>());
}

}  // namespace orvane::testing
