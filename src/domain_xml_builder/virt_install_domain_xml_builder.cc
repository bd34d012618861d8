#include "domain_xml_builder/virt_install_domain_xml_builder.h"

#include <algorithm>

#include "conversion/errors.h"
#include "domain_xml_builder/storage_pools.h"
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

// virt-install looks up a storage pool for the directory of every --disk path, even
// with --print-xml: when no pool covers that directory it defines one named after the
// directory, starts it and marks it autostart; when a stopped pool covers it, it starts
// that pool (virtinst's diskbackend.manage_path). It skips this only for paths under
// /dev, /sys and /proc or for URLs, none of which names an image file in the output
// directory, so the command line stays as it is and the run undoes the side effect
// instead: it notes the pools before virt-install runs and afterwards stops and
// undefines a pool that is new and covers an image's directory (pool-undefine keeps
// the directory and its files), and stops again a pool of such a directory that
// virt-install started. The `default` pool already covers its directory, so images put
// there meet no new pool, and the define step's refresh stays as it was.
// Every run takes one host-wide lock around that window. Without it, runs into one new
// directory raced: each virt-install tried to define the same pool, and one failed with
// "pool 'DIR' already exists" (2 of 12 parallel runs); and one run could remove a pool
// that another run's virt-install was still using.
std::string VirtInstallDomainXmlBuilder::buildDomainXml(const DomainSpec& spec,
                                                        ProgressObserver* progress) {
  std::vector<std::string> images;
  for (const DomainSpec::Disk& disk : spec.disks) images.push_back(disk.path);

  HostLock lock(lockPath_);
  PoolStates before;
  std::string error;
  {
    HeldSignals held;
    if (!listPools(before, error)) throw V2vError(error);
  }

  CommandOptions options;
  options.progress = progress;
  options.tickIntervalMs = 100;
  const CommandResult result = runCommand(buildVirtInstallArgv(spec), options);

  // Ctrl-C at a terminal reaches every process of the foreground group: the virsh
  // calls that put the pools back must not die of the Ctrl-C that cut virt-install
  // short (measured: the pool stayed). The run still sees the signal afterwards.
  PoolStates after;
  std::string restoreError;
  {
    HeldSignals held;
    if (listPools(after, error)) {
      restoreError = restorePools(poolChanges(before, after), after, imageDirectories(images));
    } else {
      restoreError = error + "\n";
    }
  }
  if (!result.ok()) throw V2vError(result.stderrText + restoreError);
  if (!restoreError.empty()) throw V2vError(restoreError);
  return result.stdoutText;
}

}  // namespace orvane
