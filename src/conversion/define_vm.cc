#include "conversion/conversion.h"
#include "conversion/errors.h"
#include "conversion/step_helpers.h"
#include "domain_xml_builder/virt_install_domain_xml_builder.h"
#include "libvirt_backend/libvirt_backend.h"
#include "progress/spinner.h"

namespace orvane {

void Conversion::defineVm() {
  log_.info("Step 5/" + std::to_string(totalSteps_) +
            ": Defining the VM in Orvane (it will not be started)...");
  DomainSpec spec;
  spec.vmName = vmName_;
  spec.vcpus = numCpus_;
  spec.memoryMb = memSizeMb_;
  spec.osinfo = osinfo_;
  spec.clockOffset = clockOffset_;
  spec.uefi = firmware_ == "efi";
  for (const std::string& image : createdQcows_) spec.disks.push_back({image, diskBus_});
  // A guest without NICs still gets one: a VM nobody can reach is not a finished one.
  if (macAddresses_.empty()) {
    spec.nics.push_back({nicModel_, ""});
  } else {
    for (const std::string& mac : macAddresses_) spec.nics.push_back({nicModel_, mac});
  }
  if (options_.verbose) log_.trace(joinSpace(buildVirtInstallArgv(spec)));

  std::string xml;
  try {
    Spinner spinner("  generating domain XML", 1);
    xml = xmlBuilder_->buildDomainXml(spec, &spinner);
  } catch (const V2vError& e) {
    log_.error("virt-install (XML generation) failed:");
    errorLines(log_, e.what());
    throw V2vError("virt-install failed", "vm_create", true);
  }
  try {
    Spinner spinner("  defining the VM", 1);
    libvirt_->defineDomain(xml, &spinner);
  } catch (const V2vError& e) {
    log_.error("virsh define failed:");
    errorLines(log_, e.what());
    throw V2vError("virsh define failed", "vm_create", true);
  }
  vmDefined_ = true;
  stepCreateOk_ = true;
  log_.info("VM '" + vmName_ + "' defined (powered off; start it when you're ready).");
}

void Conversion::refreshPool() {
  log_.info("Step 6/" + std::to_string(totalSteps_) +
            ": Registering images with the storage pool...");
  if (!usedDefaultPool_) {
    log_.info("  Explicit output directory; no pool refresh needed.");
    return;
  }
  Spinner spinner("  refreshing the storage pool", 1);
  if (libvirt_->refreshPool("default", &spinner)) {
    log_.info("  'default' pool refreshed.");
  } else {
    log_.warn("Could not refresh the 'default' pool (images are still in place).");
  }
}

}  // namespace orvane
