// The libFuzzer targets: fuzz/CMakeLists.txt compiles this file once per function below,
// naming it in ORVANE_FUZZ_TARGET. Each traps when the code under test breaks a rule of
// its own output; crashes, leaks and undefined behaviour end the run by themselves.
#include <algorithm>
#include <cstdint>

#include "boot_fixer/esp_probe.h"
#include "cli/parse_args.h"
#include "libvirt_backend/virsh_libvirt_backend.h"
#include "progress/qemu_img_progress.h"
#include "text/text.h"
#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane::fuzz {

void require(bool rule) {
  if (!rule) __builtin_trap();
}
bool trimmed(std::string_view s) { return !s.empty() && trim(s) == s; }

// In a folder that does not exist, so that relative disk names open nothing.
void vmx(const std::string& text) {
  const VmxData vmx = parseVmxText(text, "/nonexistent");
  require(!vmx.numVcpus.empty() && !vmx.firmware.empty());
  require(toLowerAscii(vmx.guestOs) == vmx.guestOs &&
          toLowerAscii(vmx.firmware) == vmx.firmware);
  for (const std::string& path : vmx.vmdkFiles)  // joined to the folder: always absolute
    require(path.starts_with("/") && toLowerAscii(path).ends_with(".vmdk"));
  require(vmx.snapDisks.size() <= vmx.vmdkFiles.size() &&
          vmx.diskDevices.size() == vmx.vmdkFiles.size() &&
          (!vmx.hddOrderApplied || !vmx.vmdkFiles.empty()));
}

// Only the first 64 KiB are scanned for a parent; parseDescriptor stops at the first
// NUL byte as qemu-img does and returns only names a descriptor line can quote.
void descriptor(const std::string& text) {
  if (text.size() < kDescriptorScanBytes)
    require(
        descriptorHasParent(text) ==
        descriptorHasParent(text + '\n' + std::string(kDescriptorScanBytes, 'x') +
                            "\nparentCID=1a2b3c4d\nparentFileNameHint=\"base.vmdk\"\n"));
  const DescriptorInfo info = parseDescriptor(text);
  for (const std::string& name : info.extents)
    require(!name.empty() &&
            name.find_first_of(std::string_view("\"\r\n\0", 4)) == name.npos);
  const DescriptorInfo same = parseDescriptor(
      text + std::string("\0RW 8 FLAT \"/dev/sda\" 0\ncreateType=\"fullDevice\"\n", 48));
  require(same.createType == info.createType && same.extents == info.extents);
  (void)isRawDeviceCreateType(info.createType);
  (void)sparseHeader(text);
}

// The first byte splits the rest into chunks that end after each occurrence of it, as a
// pipe splits values. Once read, the percentage stays within 0..100, NaN included.
void qemuProgress(const std::string& input) {
  QemuImgProgress progress("  converting disk 1/1", -1);  // fd -1: parses, draws nothing
  bool seen = false;
  const auto check = [&] {
    seen = seen || progress.lastPercent() != -1;
    require(!seen || (progress.lastPercent() >= 0 && progress.lastPercent() <= 100));
  };
  for (std::size_t start = 1, end = 0; start < input.size(); start = end) {
    end = std::min(input.find(input[0], start), input.size() - 1) + 1;
    progress.onOutput(std::string_view(input).substr(start, end - start));
    check();
    if (((end - 1) & 3) == 0) progress.onTick();
  }
  progress.onFinish();
  check();
}

// An argument vector: the input split at NUL bytes, no word at all for an empty input.
void args(const std::string& input) {
  std::vector<std::string> words;
  if (!input.empty())
    for (std::string_view word : split(input, '\0')) words.emplace_back(word);
  std::string program = "orvane-v2v", joined = input;
  std::ranges::replace(joined, '\0', ' ');
  std::vector<char*> argv{program.data()};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const ParseResult result = parseArgs(static_cast<int>(argv.size() - 1), argv.data());
  require(result.options.invocation == joined &&
          !(result.helpRequested && result.hadError));
  bool named = !result.hadError;  // an error names the word it refused
  for (const std::string& word : words)
    named = named || result.errorMessage == "Unknown option: " + word;
  require(named);
}

// The boot fixer's three readings of guestfish output, all on the same input.
void guestfish(const std::string& output) {
  for (const std::string& device : parseVfatDevices(output))
    require(trimmed(device) && device.find_first_of(":\n") == device.npos);
  (void)isTrueAnswer(output);
  const EspDecision d = decideFromProbe(output);
  if (d.kind == EspDecision::Kind::kCopy)
    require(d.source.starts_with("/EFI/") &&
            d.note.starts_with("added \\EFI\\BOOT\\BOOTX64.EFI from ") &&
            (d.extraGrub.empty() || d.extraGrub.starts_with("/EFI/")));
  else  // nothing to copy; only kAlreadyPresent has a note for the user
    require(d.source.empty() &&
            (d.kind == EspDecision::Kind::kAlreadyPresent ? d.extraGrub.empty()
                                                          : d.note.empty()));
}

// `virsh pool-dumpxml` output: a path found is trimmed and comes from a <path> element.
void poolXml(const std::string& xml) {
  const std::optional<std::string> path = extractPoolPath(xml);
  require(!path || (trimmed(*path) && xml.find("<path>") != xml.npos &&
                    xml.find(*path) != xml.npos));
}

}  // namespace orvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvane::fuzz::ORVANE_FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
  return 0;
}
