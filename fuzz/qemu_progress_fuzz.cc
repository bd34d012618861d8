// QemuImgProgress fed arbitrary qemu-img output in chunks. The first input byte is
// the split byte: the rest is cut after each occurrence of it, so values arrive
// split across chunks the way they do from a pipe. Once read, the percentage must
// stay within 0..100 (NaN and infinities included).

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "progress/qemu_img_progress.h"

namespace {

void checkPercent(double percent, bool& seen) {
  if (percent == -1 && !seen) return;
  if (!(percent >= 0 && percent <= 100)) __builtin_trap();
  seen = true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char split = static_cast<char>(data[0]);
  const std::string_view output(reinterpret_cast<const char*>(data) + 1, size - 1);

  // File descriptor -1 is no terminal: the display parses but draws nothing.
  orvane::QemuImgProgress progress("  converting disk 1/1", -1);
  bool seen = false;
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find(split, start);
    end = end == std::string_view::npos ? output.size() : end + 1;
    progress.onOutput(output.substr(start, end - start));
    checkPercent(progress.lastPercent(), seen);
    if ((end & 3) == 0) progress.onTick();
    start = end;
  }
  progress.onFinish();
  checkPercent(progress.lastPercent(), seen);
  return 0;
}
