// descriptorHasParent on arbitrary descriptor text, and its 64 KiB limit: whatever
// follows the first 64 KiB must not change the answer.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vmx/vmx_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const bool hasParent = orvane::descriptorHasParent(text);

  if (size < orvane::kDescriptorScanBytes) {
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
  return 0;
}
