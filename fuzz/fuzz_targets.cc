// The libFuzzer targets. fuzz/CMakeLists.txt compiles this file once per target with
// -DORVANE_FUZZ_TARGET=<one of the functions below>. Each function traps when the code
// under test breaks a rule of its own output; crashes, leaks and undefined behaviour end
// the run by themselves.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "boot_fixer/esp_probe.h"
#include "cli/parse_args.h"
#include "libvirt_backend/virsh_libvirt_backend.h"
#include "progress/qemu_img_progress.h"
#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace orvane::fuzz {

void require(bool rule) {
  if (!rule) __builtin_trap();
}
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool trimmed(const std::string& s) {
  return !s.empty() && !isBlank(s.front()) && !isBlank(s.back());
}
bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}
std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// .vmx text in a folder that does not exist, so that relative disk names open nothing.
void vmx(const std::string& text) {
  const VmxData vmx = parseVmxText(text, "/nonexistent");
  require(!vmx.numVcpus.empty() && !vmx.firmware.empty());
  require(lower(vmx.guestOs) == vmx.guestOs && lower(vmx.firmware) == vmx.firmware);
  for (const std::string& path : vmx.vmdkFiles)  // joined to the folder: always absolute
    require(startsWith(path, "/") && path.size() > 5 &&
            lower(path.substr(path.size() - 5)) == ".vmdk");
  require(vmx.snapDisks.size() <= vmx.vmdkFiles.size());
  require(vmx.diskDevices.size() == vmx.vmdkFiles.size());
  require(!vmx.hddOrderApplied || !vmx.vmdkFiles.empty());
}

// The parent scan reads the first 64 KiB only; parseDescriptor stops at the first NUL
// byte as qemu-img does and returns only names a descriptor line can quote.
void descriptor(const std::string& text) {
  static std::string extended;  // kept between runs: its 64 KiB are allocated once
  if (text.size() < kDescriptorScanBytes) {
    extended = text + '\n' + std::string(kDescriptorScanBytes, 'x') +
               "\nparentCID=1a2b3c4d\nparentFileNameHint=\"base.vmdk\"\n";
    require(descriptorHasParent(extended) == descriptorHasParent(text));
  }
  const DescriptorInfo info = parseDescriptor(text);
  for (const std::string& name : info.extents)
    require(!name.empty() &&
            name.find_first_of(std::string_view("\"\r\n\0", 4)) == name.npos);
  extended = text;
  extended +=
      std::string_view("\0RW 8 FLAT \"/dev/sda\" 0\ncreateType=\"fullDevice\"\n", 48);
  const DescriptorInfo same = parseDescriptor(extended);
  require(same.createType == info.createType && same.extents == info.extents);
  (void)isRawDeviceCreateType(info.createType);
  (void)sparseHeader(text);
}

// The first byte is the split byte: the rest is cut after each occurrence of it, so that
// values arrive split across chunks as from a pipe. Once read, the percentage stays
// within 0..100. File descriptor -1 is no terminal: the display parses, draws nothing.
void qemuProgress(const std::string& input) {
  if (input.empty()) return;
  const std::string_view output = std::string_view(input).substr(1);
  QemuImgProgress progress("  converting disk 1/1", -1);
  bool seen = false;
  const auto check = [&] {
    const double percent = progress.lastPercent();
    if (percent == -1 && !seen) return;
    require(percent >= 0 && percent <= 100);  // false for NaN too
    seen = true;
  };
  for (std::size_t start = 0, end = 0; start < output.size(); start = end) {
    end = output.find(input[0], start);
    end = end == output.npos ? output.size() : end + 1;
    progress.onOutput(output.substr(start, end - start));
    check();
    if ((end & 3) == 0) progress.onTick();
  }
  progress.onFinish();
  check();
}

// An argument vector made from the input split at NUL bytes.
void args(const std::string& input) {
  std::vector<std::string> words;
  for (std::size_t start = 0, nul = 0; !input.empty() && nul != input.npos;
       start = nul + 1) {
    nul = input.find('\0', start);
    words.push_back(input.substr(start, nul == input.npos ? nul : nul - start));
  }
  std::string program = "orvane-v2v", joined;
  std::vector<char*> argv{program.data()};
  for (std::size_t i = 0; i < words.size(); ++i) {
    argv.push_back(words[i].data());
    joined += (i > 0 ? " " : "") + words[i];
  }
  argv.push_back(nullptr);
  const ParseResult result = parseArgs(static_cast<int>(argv.size() - 1), argv.data());
  require(result.options.invocation == joined);
  require(!(result.helpRequested && result.hadError));
  bool named = !result.hadError;  // an error names the word it refused
  for (const std::string& word : words)
    named = named || "Unknown option: " + word == result.errorMessage;
  require(named);
}

// The boot fixer's reading of guestfish output: list-filesystems, the boolean answers
// and the decision taken from the ESP probe, all on the same input.
void guestfish(const std::string& output) {
  for (const std::string& device : parseVfatDevices(output))
    require(trimmed(device) && device.find_first_of(":\n") == device.npos);
  (void)isTrueAnswer(output);
  const EspDecision decision = decideFromProbe(output);
  switch (decision.kind) {
    case EspDecision::Kind::kAlreadyPresent:
      require(decision.source.empty() && decision.extraGrub.empty());
      break;
    case EspDecision::Kind::kCopy:
      require(startsWith(decision.source, "/EFI/") &&
              startsWith(decision.note, "added \\EFI\\BOOT\\BOOTX64.EFI from "));
      require(decision.extraGrub.empty() || startsWith(decision.extraGrub, "/EFI/"));
      break;
    case EspDecision::Kind::kNoSource:
      require(decision.source.empty() && decision.note.empty());
      break;
  }
}

// `virsh pool-dumpxml` output: a path found is trimmed and comes from a <path> element.
void poolXml(const std::string& xml) {
  const std::optional<std::string> path = extractPoolPath(xml);
  if (path)
    require(trimmed(*path) && xml.find("<path>") != xml.npos &&
            xml.find(*path) != xml.npos);
}

}  // namespace orvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvane::fuzz::ORVANE_FUZZ_TARGET(
      std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
