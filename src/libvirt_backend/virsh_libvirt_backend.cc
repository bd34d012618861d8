#include "libvirt_backend/virsh_libvirt_backend.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string_view>

#include "conversion/errors.h"
#include "process/command_runner.h"
#include "text/text.h"

namespace orvane {
namespace {

CommandResult virsh(std::vector<std::string> args, ProgressObserver* progress = nullptr) {
  args.insert(args.begin(), "virsh");
  CommandOptions options;
  options.progress = progress;
  options.tickIntervalMs = 100;
  return runCommand(args, options);
}

/// Writes `xml` to a fresh "/tmp/orvane-v2v-domain-XXXXXX" and returns its path.
/// mkstemp creates it exclusively with mode 0600, so no one else can swap or read it.
std::string writeTempXml(const std::string& xml) {
  char path[] = "/tmp/orvane-v2v-domain-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) throw V2vError("Could not create a temp file for the VM XML.");
  bool written = false;
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << xml;
    out.close();
    written = !out.fail();
  }
  close(fd);  // never retried on EINTR: the descriptor may already be gone
  if (!written) {
    std::remove(path);
    throw V2vError("Could not create a temp file for the VM XML.");
  }
  return path;
}

/// A word of virsh's own command language: single quotes keep everything but a
/// quote, which is closed, escaped and reopened. Names may hold blanks, ";", quotes.
std::string virshQuoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// One command line argument stays well below the kernel's limit for a single
// argument (128 KiB); a longer list is read in several processes.
constexpr std::size_t kMaxBatchArgument = 96 * 1024;

}  // namespace

std::vector<std::pair<std::string, std::string>> dumpBatchXml(
    const std::vector<std::string>& names, const std::string& nonce) {
  std::vector<std::pair<std::string, std::string>> result;
  std::size_t next = 0;
  while (next < names.size()) {
    // "echo <marker>; dumpxml --domain <name>; echo <marker>; ...": virsh runs the
    // commands one after the other and goes on after a failed one. The markers carry a
    // nonce no domain's XML can predict, so the text between two of them is exactly
    // one definition; --domain keeps a name that begins with "-" from being an option.
    const std::size_t first = next;
    std::string batch;
    std::vector<std::string> markers;
    do {
      markers.push_back("orvane-" + nonce + "-" + std::to_string(next));
      batch += "echo " + markers.back() + "; dumpxml --domain " + virshQuoted(names[next]) + "; ";
      ++next;
    } while (next < names.size() && batch.size() < kMaxBatchArgument);
    markers.push_back("orvane-" + nonce + "-end");
    batch += "echo " + markers.back();

    const std::string out = runCommand({"virsh", batch}).stdoutText;
    // Only a definition whose closing marker arrived is complete: a virsh that died
    // part-way leaves the rest empty, as a failed dumpxml would.
    std::size_t pos = out.find(markers[0]);
    for (std::size_t i = 0; i + 1 < markers.size(); ++i) {
      std::string xml;
      if (pos != std::string::npos) {
        const std::size_t start = pos + markers[i].size();
        const std::size_t end = out.find(markers[i + 1], start);
        if (end != std::string::npos) xml = out.substr(start, end - start);
        pos = end;
      }
      result.emplace_back(names[first + i], std::move(xml));
    }
  }
  return result;
}

std::optional<std::string> extractPoolPath(const std::string& poolXml) {
  static constexpr std::string_view kOpen = "<path>";
  static constexpr std::string_view kClose = "</path>";
  std::size_t open = poolXml.find(kOpen);
  if (open == std::string::npos) return std::nullopt;
  std::size_t start = open + kOpen.size();
  std::size_t end = poolXml.find(kClose, start);
  if (end == std::string::npos) return std::nullopt;
  const std::string_view path = trim(std::string_view(poolXml).substr(start, end - start));
  if (path.empty()) return std::nullopt;
  return std::string(path);
}

bool VirshLibvirtBackend::isReachable() { return virsh({"version"}).ok(); }

bool VirshLibvirtBackend::networkDefined(const std::string& name) {
  return virsh({"net-info", name}).ok();
}

bool VirshLibvirtBackend::networkActive(const std::string& name) {
  CommandResult result = virsh({"net-list", "--name"});
  if (!result.ok()) return false;
  for (const std::string& line : nonBlankLines(result.stdoutText)) {
    if (line == name) return true;
  }
  return false;
}

std::optional<std::string> VirshLibvirtBackend::defaultPoolPath() {
  CommandResult result = virsh({"pool-dumpxml", "default"});
  if (!result.ok() || result.stdoutText.empty()) return std::nullopt;
  return extractPoolPath(result.stdoutText);
}

bool VirshLibvirtBackend::domainExists(const std::string& name) {
  return virsh({"dominfo", name}).ok();
}

std::vector<std::string> VirshLibvirtBackend::listDomains() {
  CommandResult result = virsh({"list", "--all", "--name"});
  if (!result.ok()) return {};
  return nonBlankLines(result.stdoutText);
}

std::string VirshLibvirtBackend::dumpDomainXml(const std::string& name) {
  return virsh({"dumpxml", name}).stdoutText;
}

std::vector<std::pair<std::string, std::string>> VirshLibvirtBackend::dumpAllDomainXml() {
  std::vector<std::string> names = listDomains();
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < 16; ++i) nonce += "0123456789abcdef"[random() % 16];
  return dumpBatchXml(names, nonce);
}

void VirshLibvirtBackend::defineDomain(const std::string& xml,
                                       ProgressObserver* progress) {
  std::string path = writeTempXml(xml);
  CommandResult result = virsh({"define", path}, progress);
  std::remove(path.c_str());
  if (!result.ok()) throw V2vError(result.stderrText);
}

void VirshLibvirtBackend::undefineDomain(const std::string& name) {
  // A BIOS guest has no variable store, and some libvirt versions refuse the
  // flag then: the plain form is the fallback, and its answer does not matter.
  if (virsh({"undefine", name, "--nvram"}).ok()) return;
  virsh({"undefine", name});
}

bool VirshLibvirtBackend::refreshPool(const std::string& pool,
                                      ProgressObserver* progress) {
  return virsh({"pool-refresh", pool}, progress).ok();
}

}  // namespace orvane
