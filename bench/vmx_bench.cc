// Cost of reading a large .vmx: parseVmx on a generated 10,000-line file with the
// usual mix of device keys, 16 disks (12 present, with descriptors) and 10 NICs.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "vmx/vmx_reader.h"

namespace {

std::string generatedVmx(int lines) {
  std::string text =
      ".encoding = \"UTF-8\"\nconfig.version = \"8\"\n"
      "virtualHW.version = \"19\"\ndisplayName = \"bench-vm\"\n"
      "guestOS = \"windows2019srv-64\"\nfirmware = \"efi\"\n"
      "numvcpus = \"8\"\nmemsize = \"32768\"\n";
  int count = 8;
  for (int disk = 0; disk < 16; ++disk, count += 3) {
    const std::string prefix =
        "scsi" + std::to_string(disk / 8) + ":" + std::to_string(disk % 8);
    text += prefix + ".fileName = \"bench-" + std::to_string(disk) + ".vmdk\"\n";
    text += prefix + ".present = \"" + (disk % 4 == 3 ? "FALSE" : "TRUE") + "\"\n";
    text += prefix + ".deviceType = \"scsi-hardDisk\"\n";
  }
  for (int nic = 0; nic < 10; ++nic, count += 2) {
    text += "ethernet" + std::to_string(nic) + ".present = \"TRUE\"\n";
    text += "ethernet" + std::to_string(nic) +
            ".generatedAddress = \"00:0c:29:00:00:" + std::to_string(10 + nic) + "\"\n";
  }
  for (int i = 0; count < lines; ++i, ++count) {
    // Keys shaped like the ones a long-lived VM accumulates.
    switch (i % 4) {
      case 0:
        text += "sched.mem.pshare.entry" + std::to_string(i) + " = \"TRUE\"\n";
        break;
      case 1:
        text += "guestinfo.metadata." + std::to_string(i) + " = \"e30=\"\n";
        break;
      case 2:
        text += "serial" + std::to_string(i) + ".fileType = \"pipe\"\n";
        break;
      default:
        text += "pciBridge" + std::to_string(i) + ".present = \"TRUE\"\n";
        break;
    }
  }
  return text;
}

void BM_ParseVmx10kLines(benchmark::State& state) {
  char folder[] = "/tmp/orvane-vmx-bench-XXXXXX";
  if (mkdtemp(folder) == nullptr) throw std::runtime_error("mkdtemp failed");
  const std::string vmxPath = std::string(folder) + "/bench.vmx";
  std::ofstream(vmxPath) << generatedVmx(10000);
  // Real descriptors, so each parse also pays for the parent scans.
  for (int disk = 0; disk < 16; ++disk) {
    std::ofstream(std::string(folder) + "/bench-" + std::to_string(disk) + ".vmdk")
        << "# Disk DescriptorFile\nversion=1\nCID=5b6c7d8e\nparentCID=ffffffff\n"
           "createType=\"monolithicSparse\"\nRW 41943040 SPARSE \"bench-s001.vmdk\"\n";
  }
  for (auto _ : state) {
    orvane::VmxData data = orvane::parseVmx(vmxPath, folder);
    benchmark::DoNotOptimize(data);
  }
  std::remove(vmxPath.c_str());
  for (int disk = 0; disk < 16; ++disk) {
    std::remove(
        (std::string(folder) + "/bench-" + std::to_string(disk) + ".vmdk").c_str());
  }
  rmdir(folder);
}
BENCHMARK(BM_ParseVmx10kLines)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
