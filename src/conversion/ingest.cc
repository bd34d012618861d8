#include <algorithm>

#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "guest_profile/guest_profile.h"
#include "libvirt_backend/libvirt_backend.h"
#include "vmx/disk_files.h"
#include "vmx/vmx_reader.h"

namespace orvane {

namespace {

// Strict on purpose: "04", "+4" or "4.0" in a .vmx means something odd happened to
// the file, and guessing a CPU count or memory size is not worth a broken guest.
// The same test as the pattern ^[1-9][0-9]*$, written out because the standard
// regex matcher recurses once per character: a corrupt .vmx with megabytes of
// digits in one value would overflow the stack.
bool isPositiveInt(const std::string& text) {
  if (text.empty() || text[0] < '1' || text[0] > '9') return false;
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

const char* const kMisreadNameReason =
    "A VM name must not begin with '-', be a number or have the form of a UUID: virsh "
    "would read it as an option, a domain ID or a UUID.";

V2vError ingestFailure(const std::string& reason) { return V2vError(reason, "ingest", false); }

std::string joinComma(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
  return out;
}

}  // namespace

void Conversion::ingest() {
  const std::string total = std::to_string(totalSteps_);
  log_.info("Step 2/" + total + ": Reading source VM configuration (" + sourceType_ + ")...");
  if (sourceType_ != "vmware") throw ingestFailure("Unsupported source type: " + sourceType_);

  const VmxData vmx = readVmx();
  checkSourceDisks(vmx);
  readMachine(vmx);
  chooseVmName();
  nameRunLog();
  chooseGuestSettings();
  chooseDeviceModels();
  stepIngestOk_ = true;

  logSourceSummary(vmx);
  printHeadsUp();
  runPreflightChecks();
}

VmxData Conversion::readVmx() {
  log_.trace("VMX file: " + vmxPath_);
  VmxData vmx = parseVmx(vmxPath_, options_.path);
  rawVmName_ = std::move(vmx.displayName);
  guestOs_ = std::move(vmx.guestOs);
  firmware_ = std::move(vmx.firmware);
  macAddresses_ = std::move(vmx.macAddresses);
  vmdkFiles_ = std::move(vmx.vmdkFiles);
  snapDisks_ = std::move(vmx.snapDisks);
  hasVtpm_ = vmx.hasVtpm;
  hasPassthrough_ = vmx.hasPassthrough;
  hasSerial_ = vmx.hasSerial;
  return vmx;
}

void Conversion::checkSourceDisks(const VmxData& vmx) {
  // Checked first: an encrypted .vmx keeps its disks out of sight, and "no disks"
  // would send the user looking for files that are there.
  if (vmx.encrypted) {
    log_.error(
        "This VM is encrypted by VMware (encryption.keySafe / encryption.data in its "
        ".vmx),");
    log_.error(
        "so its configuration and disks cannot be read here. It must be decrypted in "
        "VMware");
    log_.error("before it can be migrated: remove its encryption there, then re-run.");
    throw ingestFailure("encrypted vm");
  }
  if (vmdkFiles_.empty()) {
    log_.error("No VMDK disks found in " + options_.path + ".");
    throw ingestFailure("no vmdk");
  }
  // Every file qemu-img would open for the disks, checked before anything else
  // reads them: the folder is someone else's input and this runs as root.
  std::vector<NamedDisk> disks;
  for (std::size_t i = 0; i < vmdkFiles_.size(); ++i) {
    disks.push_back({vmdkFiles_[i], vmx.diskDevices[i] + ".fileName"});
  }
  for (const std::string& problem : diskFileProblems(disks)) noteBlocker(problem, kExitFailure);
  if (!snapDisks_.empty()) {
    noteBlocker(
        "This VM is running on a snapshot (or is a linked clone). These disk(s) are deltas "
        "on a parent chain: " +
            joinSpace(snapDisks_) +
            "\norvane-v2v converts only consolidated disks. In vSphere, delete or consolidate "
            "all snapshots for this VM, then re-run.",
        kExitFailure);
  }
}

void Conversion::readMachine(const VmxData& vmx) {
  if (!isPositiveInt(vmx.numVcpus)) {
    log_.error("Could not read a valid CPU count from the source (got: '" + vmx.numVcpus +
               "').");
    throw ingestFailure("bad cpu");
  }
  numCpus_ = std::stoi(vmx.numVcpus);
  if (!isPositiveInt(vmx.memSize)) {
    log_.error("Could not read a valid memory size (MB) from the source (got: '" +
               vmx.memSize + "').");
    throw ingestFailure("bad mem");
  }
  memSizeMb_ = std::stoll(vmx.memSize);

  if (firmware_ != "efi" && firmware_ != "bios") {
    log_.warn("Unrecognized firmware value '" + firmware_ + "'; treating as BIOS.");
    firmware_ = "bios";
  }
}

void Conversion::chooseVmName() {
  if (!options_.vmName.empty()) {
    if (!isValidDomainName(options_.vmName)) {
      log_.error("The name given with --vm-name is not a valid VM name: '" + options_.vmName +
                 "'");
      log_.error("Use only letters, digits, and _ . + -  (no spaces or special characters).");
      if (virshMisreadsName(options_.vmName)) log_.error(kMisreadNameReason);
      throw ingestFailure("bad vm-name");
    }
    vmName_ = options_.vmName;
  } else {
    if (rawVmName_.empty()) {
      log_.error("No VM name found in the source config, and no --vm-name was given.");
      log_.error("Re-run with --vm-name to set the VM name.");
      throw ingestFailure("no vm-name");
    }
    // Never sanitised: a silently altered name is one the user cannot find later.
    if (!isValidDomainName(rawVmName_)) {
      log_.error("The VM name in the source config is '" + rawVmName_ + "', which is not a");
      log_.error("compatible VM name (it contains spaces or special characters).");
      if (virshMisreadsName(rawVmName_)) log_.error(kMisreadNameReason);
      log_.error("Re-run with --vm-name to set a valid name.");
      throw ingestFailure("bad source vm-name");
    }
    vmName_ = rawVmName_;
  }
  if (libvirt_->domainExists(vmName_)) {
    noteBlocker("A VM named '" + vmName_ + "' already exists in Orvane.", kExitFailure);
  }
}

void Conversion::chooseGuestSettings() {
  osFamily_ = osFamily(guestOs_);
  const bool windows = osFamily_ == "windows";
  legacyWindows_ = windows && isLegacyWindows(guestOs_);
  if (windows) {
    osVariantDesc_ = mapWindowsOsinfo(guestOs_);
    osinfo_ = "name=" + osVariantDesc_ + ",require=off";
  } else {
    osinfo_ = "detect=on,require=off";
    osVariantDesc_ = "auto-detect";
  }
  clockOffset_ = windows ? "localtime" : "utc";
  // OVMF as defined here has none of what macOS expects of a Mac (SMC, Apple
  // boot services), so a first boot cannot be promised: refused like an ESP the
  // boot fix cannot make sense of.
  if (guestOs_.starts_with("darwin")) {
    noteBlocker("This is a macOS guest (guestOS '" + guestOs_ +
                    "'), which does not boot on KVM as this tool defines VMs;\n"
                    "its first boot cannot be guaranteed. Keep it on VMware.",
                kExitBootNotGuaranteed);
  }
}

void Conversion::chooseDeviceModels() {
  if (options_.virtio) {
    diskBus_ = "virtio";
    nicModel_ = "virtio";
    devPrefix_ = "vd";
  } else if (legacyWindows_) {
    diskBus_ = "ide";
    nicModel_ = "e1000";
    devPrefix_ = "hd";
  } else {
    diskBus_ = "sata";
    nicModel_ = "e1000";
    devPrefix_ = "sd";
  }
  if (options_.virtio) {
    log_.warn("--virtio set: using virtio storage and network. This requires the");
    log_.warn(osFamily_ == "windows"
                  ? "guest to ALREADY have the virtio-win drivers installed, or the VM"
                  : "guest to ALREADY have virtio modules in its initramfs, or the VM");
    log_.warn("will not boot. Omit --virtio for a guaranteed boot on default hardware.");
  }
  if (diskBus_ == "ide" && vmdkFiles_.size() > 4) {
    noteBlocker(
        "This pre-Windows-8 guest must use the IDE bus, but IDE supports at most 4 disks and "
        "this VM has " +
            std::to_string(vmdkFiles_.size()) + ". Not supported.",
        kExitFailure);
  }
}

void Conversion::logSourceSummary(const VmxData& vmx) {
  log_.info("");
  log_.info("Source VM summary:");
  log_.info("  Name (final) : " + vmName_);
  log_.info("  CPUs         : " + std::to_string(numCpus_));
  log_.info("  Memory       : " + std::to_string(memSizeMb_) + " MB");
  log_.info("  Guest OS     : " + (guestOs_.empty() ? std::string("unknown") : guestOs_) +
            " (family: " + osFamily_ + ")");
  log_.info("  Firmware     : " + firmware_);
  log_.info("  Disks        : " + std::to_string(vmdkFiles_.size()));
  if (vmx.hddOrderApplied) {
    log_.info("  Disk order   : " + joinComma(vmx.diskDevices) + " (bios.hddOrder)");
  }
  log_.info("  NICs         : " + std::to_string(macAddresses_.size()));
  log_.info("  Storage/Net  : " + diskBus_ + " / " + nicModel_);
  if (legacyWindows_) log_.info("                 (IDE: pre-Windows-8 guest, most reliable boot)");
  log_.info("  os-variant   : " + osVariantDesc_);
  log_.info("  Clock        : " + clockOffset_);
  log_.info("  Output dir   : " + outputDir_);
}

void Conversion::printHeadsUp() {
  if (!hasVtpm_ && !hasPassthrough_ && !hasSerial_) return;
  log_.info("");
  log_.info("Heads-up:");
  if (hasVtpm_) {
    log_.warn("Source has a virtual TPM. We do NOT add one. If BitLocker is enabled,");
    log_.warn("  SUSPEND OR DECRYPT IT ON THE SOURCE BEFORE MIGRATING -- otherwise the");
    log_.warn("  converted VM will stop at the BitLocker recovery-key prompt on first");
    log_.warn("  boot (a lockout if you don't have the key).");
  }
  if (hasPassthrough_) {
    log_.warn("Source uses PCI passthrough (VMDirectPath). Physical host hardware");
    log_.warn("  cannot migrate; the guest may carry drivers expecting a device that");
    log_.warn("  won't be present.");
  }
  if (hasSerial_) {
    log_.warn("Source has a serial port; it is not recreated. If an application or");
    log_.warn("  license depends on it, add a serial device after conversion.");
  }
  log_.info("");
}

}  // namespace orvane
