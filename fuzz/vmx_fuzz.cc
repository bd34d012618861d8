// parseVmxText on arbitrary .vmx text. The folder does not exist, so relative disk
// names open nothing; the reader must never crash, throw or break its own output
// rules.

#include <cstddef>
#include <cstdint>
#include <string>

#include "vmx/vmx_reader.h"

namespace {

bool hasUpperCase(const std::string& s) {
  for (char c : s) {
    if (c >= 'A' && c <= 'Z') return true;
  }
  return false;
}

bool endsWithVmdk(const std::string& path) {
  if (path.size() < 5) return false;
  std::string suffix = path.substr(path.size() - 5);
  for (char& c : suffix) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return suffix == ".vmdk";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const orvane::VmxData vmx = orvane::parseVmxText(text, "/nonexistent");

  if (vmx.numVcpus.empty() || vmx.firmware.empty()) __builtin_trap();
  if (hasUpperCase(vmx.guestOs) || hasUpperCase(vmx.firmware)) __builtin_trap();
  for (const std::string& path : vmx.vmdkFiles) {
    // Relative names are joined to the folder, absolute ones kept: always absolute.
    if (path.empty() || path.front() != '/' || !endsWithVmdk(path)) __builtin_trap();
  }
  if (vmx.snapDisks.size() > vmx.vmdkFiles.size()) __builtin_trap();
  if (vmx.diskDevices.size() != vmx.vmdkFiles.size()) __builtin_trap();
  if (vmx.hddOrderApplied && vmx.vmdkFiles.empty()) __builtin_trap();
  return 0;
}
