#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <iostream>
#include <optional>

#include "cli/usage.h"
#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "libvirt_backend/libvirt_backend.h"

namespace orvane {

namespace {

constexpr const char* kRequiredCommands[] = {"virsh", "qemu-img", "virt-install"};

/// A VMware configuration file is tens of kilobytes, vTPM state included; a larger
/// one is not a .vmx, and is refused before it is read into memory.
constexpr std::uintmax_t kLargestVmxBytes = std::uintmax_t{4} << 20;

V2vError validationFailure(const std::string& reason) {
  return V2vError(reason, "validation", true);
}

}  // namespace

void Conversion::validate() {
  const std::string total = std::to_string(totalSteps_);
  log_.info("Step 1/" + total + ": Validating arguments and environment...");
  checkInvocation();
  checkHostTools();
  checkDefaultNetwork();
  chooseOutputDir();
  findVmx();
}

void Conversion::checkInvocation() {
  if (geteuid() != 0) {
    log_.error("This tool must run as root (it writes images, manages libvirt, and");
    log_.error("runs libguestfs). Re-run with sudo.");
    throw validationFailure("must run as root");
  }
  if (options_.path.empty()) {
    log_.error("Missing required argument: --path");
    std::cerr << "\n" << usageText();
    throw validationFailure("missing --path");
  }
  options_.path = stripTrailingSlash(options_.path);

  std::error_code ec;
  if (!std::filesystem::is_directory(options_.path, ec)) {
    log_.error("Source VM folder not found: " + options_.path);
    throw validationFailure("source folder not found");
  }
}

void Conversion::checkHostTools() {
  for (const char* command : kRequiredCommands) {
    if (!commandExists(command)) {
      log_.error(std::string("Required command not found in PATH: ") + command);
      throw validationFailure("missing command");
    }
  }
  if (!libvirt_->isReachable()) {
    log_.error("Cannot talk to libvirt (virsh). Is libvirtd running and are you root?");
    throw validationFailure("libvirt unreachable");
  }
}

void Conversion::checkDefaultNetwork() {
  if (!libvirt_->networkDefined("default")) {
    noteBlocker(
        "libvirt's 'default' network is not defined; NICs cannot be attached.\n"
        "Define and start it, then retry.",
        kExitFailure);
  } else if (!libvirt_->networkActive("default")) {
    noteBlocker(
        "libvirt's 'default' network is defined but not active. Start it:\n"
        "  virsh net-start default && virsh net-autostart default",
        kExitFailure);
  }
}

void Conversion::chooseOutputDir() {
  if (!options_.outputDir.empty()) {
    outputDir_ = stripTrailingSlash(options_.outputDir);
    usedDefaultPool_ = false;
  } else {
    std::optional<std::string> poolPath = libvirt_->defaultPoolPath();
    if (!poolPath) {
      log_.error("No libvirt 'default' storage pool found, and no --output-dir given.");
      log_.error("Specify a target directory with -o, or define a default pool.");
      throw validationFailure("no default pool");
    }
    outputDir_ = stripTrailingSlash(*poolPath);
    usedDefaultPool_ = true;
    log_.trace("Default storage pool path: " + outputDir_);
  }
  std::error_code ec;
  if (std::filesystem::is_directory(outputDir_, ec)) {
    if (access(outputDir_.c_str(), W_OK) != 0) {
      noteBlocker("Output directory is not writable: " + outputDir_, kExitFailure);
    }
  } else {
    noteBlocker("Output directory does not exist or is not a directory: " + outputDir_,
                kExitFailure);
  }
}

void Conversion::findVmx() {
  std::error_code ec;
  std::vector<std::string> vmxFiles;
  for (std::filesystem::directory_iterator it(options_.path, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code typeEc;
    if (it->is_regular_file(typeEc) &&
        endsWithLower(it->path().filename().string(), ".vmx")) {
      vmxFiles.push_back(it->path().string());
    }
  }
  if (vmxFiles.size() == 1) {
    const std::uintmax_t vmxBytes = std::filesystem::file_size(vmxFiles.front(), ec);
    if (!ec && vmxBytes > kLargestVmxBytes) {
      log_.error("The VMX file " + vmxFiles.front() + " is " + std::to_string(vmxBytes) +
                 " bytes; a VMware configuration file is far smaller, and orvane-v2v");
      log_.error("reads one of at most " + std::to_string(kLargestVmxBytes) +
                 " bytes (4 MiB). Check that it is the VM's own .vmx file.");
      throw validationFailure("vmx too large");
    }
    sourceType_ = "vmware";
    vmxPath_ = vmxFiles.front();
    log_.trace("Detected source type: " + sourceType_);
    stepValidateOk_ = true;
    const std::string total = std::to_string(totalSteps_);
    log_.info("Step 1/" + total + ": validation passed.");
  } else if (vmxFiles.empty()) {
    log_.error("No .vmx file found in " + options_.path +
               " -- this does not look like a VMware VM folder.");
    log_.error("(Hyper-V and OVF/OVA sources are not supported in this version.)");
    throw validationFailure("no vmx");
  } else {
    log_.error("Multiple .vmx files found in " + options_.path +
               "; cannot determine which VM to convert.");
    throw validationFailure("multiple vmx");
  }
}

}  // namespace orvane
