// The descriptor readers on arbitrary bytes: descriptorHasParent and its 64 KiB
// limit (whatever follows the first 64 KiB must not change the answer), and
// parseDescriptor, which must stop at the first NUL byte as qemu-img does and
// only ever return extent names that a descriptor line can quote.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vmx/vmdk_descriptor.h"
#include "vmx/vmx_reader.h"

namespace {

void checkParentScan(std::string_view text) {
  const bool hasParent = orvane::descriptorHasParent(text);
  if (text.size() < orvane::kDescriptorScanBytes) {
    // A newline closes the input's last line unchanged, the filler line is no key,
    // and the parent line lies beyond the limit.
    // Kept between runs so that its 64 KiB buffer is allocated once, not per input.
    static std::string extended;
    extended.assign(text);
    extended += '\n';
    extended.append(orvane::kDescriptorScanBytes, 'x');
    extended += "\nparentCID=1a2b3c4d\nparentFileNameHint=\"base.vmdk\"\n";
    if (orvane::descriptorHasParent(extended) != hasParent) __builtin_trap();
  }
}

void checkExtents(std::string_view text) {
  const orvane::DescriptorInfo info = orvane::parseDescriptor(text);
  for (const std::string& name : info.extents) {
    if (name.empty() ||
        name.find_first_of(std::string_view("\"\r\n\0", 4)) != std::string::npos) {
      __builtin_trap();
    }
  }
  // An extent line after a NUL byte is never followed.
  static std::string extended;
  extended.assign(text);
  extended +=
      std::string_view("\0RW 8 FLAT \"/dev/sda\" 0\ncreateType=\"fullDevice\"\n", 48);
  const orvane::DescriptorInfo same = orvane::parseDescriptor(extended);
  if (same.createType != info.createType || same.extents != info.extents)
    __builtin_trap();
  (void)orvane::isRawDeviceCreateType(info.createType);
  (void)orvane::sparseHeader(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkParentScan(text);
  checkExtents(text);
  return 0;
}
