#include "domain_xml_builder/virt_install_domain_xml_builder.h"

#include <algorithm>

#include "conversion/errors.h"
#include "process/command_runner.h"

namespace orvane {

std::vector<std::string> buildVirtInstallArgv(const DomainSpec& spec) {
  // Option and value on one line each, as virt-install reads them.
  // clang-format off
  std::vector<std::string> argv = {
      "virt-install",
      "--name", spec.vmName,
      "--vcpus", std::to_string(spec.vcpus),
      "--memory", std::to_string(spec.memoryMb),
      "--osinfo", spec.osinfo,
      "--clock", "offset=" + spec.clockOffset,
  };
  // clang-format on
  // IDE disks need the i440fx machine ("pc"): virt-install picks q35 for the older
  // Windows releases that are put on IDE, and libvirt then refuses the definition
  // because q35 has no IDE controller. Otherwise a UEFI guest gets q35 and a BIOS
  // guest keeps virt-install's default machine type.
  const bool ide = std::any_of(spec.disks.begin(), spec.disks.end(),
                               [](const DomainSpec::Disk& d) { return d.bus == "ide"; });
  if (spec.uefi) argv.insert(argv.end(), {"--boot", "uefi"});
  if (spec.uefi || ide) argv.insert(argv.end(), {"--machine", ide ? "pc" : "q35"});
  for (const DomainSpec::Disk& disk : spec.disks) {
    argv.push_back("--disk");
    argv.push_back("path=" + disk.path + ",format=qcow2,bus=" + disk.bus);
  }
  for (const DomainSpec::Nic& nic : spec.nics) {
    argv.push_back("--network");
    std::string value = "network=default,model=" + nic.model;
    if (!nic.mac.empty()) value += ",mac=" + nic.mac;
    argv.push_back(std::move(value));
  }
  // --import takes the disks as they are; --print-xml creates nothing.
  argv.insert(argv.end(),
              {"--video", "vga", "--graphics", "vnc", "--import", "--print-xml"});
  return argv;
}

std::string VirtInstallDomainXmlBuilder::buildDomainXml(const DomainSpec& spec,
                                                        ProgressObserver* progress) {
  CommandOptions options;
  options.progress = progress;
  options.tickIntervalMs = 100;
  CommandResult result = runCommand(buildVirtInstallArgv(spec), options);
  if (!result.ok()) throw V2vError(result.stderrText);
  return result.stdoutText;
}

}  // namespace orvane
