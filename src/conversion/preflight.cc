#include <filesystem>
#include <regex>

#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "conversion/target_naming.h"
#include "libvirt_backend/libvirt_backend.h"

namespace orvane {

void Conversion::planDiskTargets() {
  targetQcows_.clear();
  targetDevs_.clear();
  for (const DiskTarget& target :
       planTargets(outputDir_, vmName_, devPrefix_, vmdkFiles_.size())) {
    targetQcows_.push_back(target.image);
    targetDevs_.push_back(target.device);
  }
}

void Conversion::runPreflightChecks() {
  planDiskTargets();
  for (const std::string& path : targetQcows_) {
    // A dangling link counts as existing too: writing through it would create a file
    // somewhere the user never named.
    std::error_code ec;
    auto status = std::filesystem::symlink_status(path, ec);
    if (!ec && status.type() != std::filesystem::file_type::not_found) {
      noteBlocker(existingTargetMessage(path), kExitFailure);
    }
  }
  for (const std::string& mac : macAddresses_) {
    if (mac.empty()) continue;
    std::string owner = macInUseBy(mac);
    if (!owner.empty()) {
      noteBlocker("Source NIC MAC " + mac + " is already in use on this host by VM '" + owner +
                      "'. orvane-v2v preserves the source MAC, so this would collide. Remove "
                      "or change the MAC on the conflicting VM, then re-run.",
                  kExitFailure);
    }
  }
  if (firmware_ == "efi" && !commandExists("guestfish")) {
    noteBlocker(
        "This is a UEFI guest, which needs guestfish (libguestfs-tools) for the boot fix, but "
        "it isn't installed. Install libguestfs-tools and retry.",
        kExitFailure);
  }
  checkFreeSpace();
}

void Conversion::loadDomainMacs() {
  static const std::regex kMacAttr("mac address='([0-9A-Fa-f:]+)'", std::regex::ECMAScript);
  domainMacsLoaded_ = true;
  for (const auto& [name, xml] : libvirt_->dumpAllDomainXml()) {
    if (name.empty()) continue;
    std::vector<std::string> macs;
    for (std::sregex_iterator it(xml.begin(), xml.end(), kMacAttr), end; it != end; ++it) {
      macs.push_back(toLowerAscii((*it)[1].str()));
    }
    domainMacs_.emplace_back(name, std::move(macs));
  }
}

std::string Conversion::macInUseBy(const std::string& mac) {
  // Every NIC asks the same question of the same domains: the definitions are read
  // once per run, through one virsh, instead of once per NIC and domain.
  if (!domainMacsLoaded_) loadDomainMacs();
  const std::string wanted = toLowerAscii(mac);
  for (const auto& [name, macs] : domainMacs_) {
    for (const std::string& candidate : macs) {
      if (candidate == wanted) return name;
    }
  }
  return "";
}

void Conversion::checkFreeSpace() {
  std::uintmax_t total = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(options_.path, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code entryEc;
    if (!it->is_regular_file(entryEc) || !endsWithLower(it->path().filename().string(), ".vmdk"))
      continue;
    std::uintmax_t size = it->file_size(entryEc);
    if (!entryEc) total += size;
  }
  std::error_code spaceEc;
  std::filesystem::space_info space = std::filesystem::space(outputDir_, spaceEc);
  if (spaceEc || total == 0 || space.available >= total) return;
  log_.warn("Low space: " + outputDir_ + " has ~" + std::to_string(space.available / 1048576) +
            " MB free; the source disks");
  log_.warn("  total ~" + std::to_string(total / 1048576) +
            " MB. The conversion may not fit (qcow2 is usually");
  log_.warn("  smaller, so it might still succeed).");
}

}  // namespace orvane
